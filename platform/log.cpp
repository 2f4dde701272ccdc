#include "platform/log.h"
#include "platform/io.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

char priority_letter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        case ANDROID_LOG_SILENT:
            return 'S';
        default:
            return '?';
    }
}

}  // namespace

int vorn_log_format_line(char *out, int out_len, int prio, const char *tag, const char *message) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    int n =
        snprintf(out, static_cast<size_t>(out_len),
                 "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %c %-8s: %s\n", tm.tm_mon + 1, tm.tm_mday,
                 tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(tv.tv_usec / 1000),
                 static_cast<int>(getpid()), static_cast<int>(syscall(SYS_gettid)),
                 priority_letter(prio), tag ? tag : "", message ? message : "");
    if (n < 0)
        return 0;
    if (n >= out_len) {
        // Cut, but keep the line a line.
        n = out_len - 1;
        if (n > 0)
            out[n - 1] = '\n';
    }
    return n;
}

void vorn_log_stderr_logger(const struct __android_logger_data *data, const char *message) {
    // A message may hold several lines (many texts end in "\n"); like logcat,
    // print each non-empty line with its own header.
    const char *p = message ? message : "";
    char line[4096 + 128];
    char text[4096];
    do {
        const char *nl = strchr(p, '\n');
        size_t len = nl ? static_cast<size_t>(nl - p) : strlen(p);
        if (len > 0 || (nl == nullptr && p == message)) {
            if (len >= sizeof(text))
                len = sizeof(text) - 1;
            memcpy(text, p, len);
            text[len] = '\0';
            int n = vorn_log_format_line(line, sizeof(line), data->priority, data->tag, text);
            write_all(STDERR_FILENO, line, static_cast<size_t>(n));
        }
        p = nl ? nl + 1 : nullptr;
    } while (p && *p);
}

void vorn_log_init() {
#ifndef __ANDROID__
    __android_log_set_logger(vorn_log_stderr_logger);
#endif
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}
