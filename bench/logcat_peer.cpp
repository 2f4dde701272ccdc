// The logcat-like peer of the logd capture benchmark: a reader of logd's
// reader socket that does what logcat does with each entry, and nothing of
// the daemon's. It connects to SOCKET, asks for the main and system buffers,
// receives one entry per packet, formats it with liblog's own
// android_log_formatLogLine in the threadtime layout and writes the line to
// FILE (buffered, as a file written by logcat -f is).
//
//   logcat_peer SOCKET FILE ENTRIES
//
// It prints "connected" once it has sent its command, and ends after ENTRIES
// entries with the file closed; then it prints "lines=N bytes=N".
#include <log/log_read.h>
#include <log/logprint.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: logcat_peer SOCKET FILE ENTRIES\n");
        return 2;
    }
    long entries = atol(argv[3]);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", argv[1]);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        perror("logcat_peer: connect");
        return 1;
    }
    const char cmd[] = "stream lids=0,3";
    if (write(fd, cmd, strlen(cmd)) != static_cast<ssize_t>(strlen(cmd))) {
        perror("logcat_peer: write");
        return 1;
    }
    FILE *out = fopen(argv[2], "w");
    if (out == nullptr) {
        perror("logcat_peer: fopen");
        return 1;
    }
    printf("connected\n");
    fflush(stdout);

    AndroidLogFormat *format = android_log_format_new();
    android_log_setPrintFormat(format, FORMAT_THREADTIME);
    static log_msg msg;
    char line[512];
    long lines = 0;
    size_t bytes = 0;
    while (lines < entries) {
        ssize_t n = recv(fd, msg.buf, LOGGER_ENTRY_MAX_LEN, 0);
        if (n <= 0)
            break;
        msg.buf[n] = 0;
        AndroidLogEntry entry;
        if (android_log_processLogBuffer(&msg.entry, &entry) < 0)
            continue;
        size_t len = 0;
        char *text = android_log_formatLogLine(format, line, sizeof line, &entry, &len);
        if (text == nullptr)
            continue;
        fwrite(text, 1, len, out);
        if (text != line)
            free(text);
        bytes += len;
        lines++;
    }
    fclose(out);
    android_log_format_free(format);
    close(fd);
    printf("lines=%ld bytes=%zu\n", lines, bytes);
    return lines == entries ? 0 : 1;
}
