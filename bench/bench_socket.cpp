// Type-1 queries against the real vornd, side by side with a minimal
// Unix-socket server that answers every connection with 256 bytes and closes
// (no work behind it). Prints, per run, queries per second and p99 latency of
// each, and what the daemon's debug log lines of one query cost against the
// query itself.
//
//   bench_socket [VORND [QUERIES [RUNS]]]   (default: ./vornd next to this binary, 4000, 5)
//
// A query is connect, send 256 bytes, read the reply and the close. Daemon
// and peer take turns within a run so that both see the same machine load.
// The daemon's log goes to /dev/null. The log cost is measured in this
// process: the request handler of a type-1 query with the daemon's stderr
// logger writing to /dev/null, against the same handler with nothing logged.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/ctrl_msg.h"
#include "core/node.h"
#include "daemon/control_request.h"
#include "platform/log.h"

namespace {

double now_us() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

int listen_on(const std::string &path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
        perror("peer bind");
        exit(1);
    }
    return fd;
}

// The peer: one connection at a time, one 256-byte answer each.
void minimal_server(int listen_fd) {
    for (;;) {
        int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        char buf[VORN_MSG_SIZE] = {};
        if (recv(fd, buf, sizeof buf, 0) > 0) {
            buf[0] = static_cast<char>(buf[0] | VORN_MSG_REPLY);
            send(fd, buf, sizeof buf, MSG_NOSIGNAL);
        }
        close(fd);
    }
}

// One query; returns its latency in microseconds, or -1.
double query(const std::string &path, const vorn_ctrl_msg &msg) {
    double t0 = now_us();
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    send(fd, &msg, sizeof msg, MSG_NOSIGNAL);
    char buf[2 * VORN_MSG_SIZE];
    size_t got = 0;
    ssize_t n;
    while ((n = recv(fd, buf + got, sizeof buf - got, 0)) > 0)
        got += static_cast<size_t>(n);
    close(fd);
    return got == VORN_MSG_SIZE && (buf[0] & VORN_MSG_REPLY) ? now_us() - t0 : -1;
}

struct stats {
    double qps, p50, p99;
};

stats summarize(std::vector<double> lat, double total_us) {
    std::sort(lat.begin(), lat.end());
    auto pct = [&](double p) { return lat[static_cast<size_t>(p * (lat.size() - 1))]; };
    return {lat.size() / (total_us / 1e6), pct(0.50), pct(0.99)};
}

void quiet(const struct __android_logger_data *, const char *) {}

// Microseconds a type-1 query spends in the request handler and the reply's
// log line, as the server runs them (their lines kept and written in one go);
// the mean of n. Without logging the minimum priority is raised above every
// message's, so that liblog drops them before they are formatted.
double handler_us(const vorn_ctrl_msg &query_msg, bool logging, int n) {
    __android_log_set_logger(vorn_log_stderr_logger);
    __android_log_set_minimum_priority(logging ? ANDROID_LOG_VERBOSE : ANDROID_LOG_SILENT);
    double t0 = now_us();
    for (int i = 0; i < n; i++) {
        vorn_log_batch batch;
        vorn_ctrl_msg m = query_msg;
        vornd_handle_request(&m, sizeof m);
        VLOGD("Send %d bytes out", static_cast<int>(sizeof m));  // as the server logs the send
    }
    double us = (now_us() - t0) / n;
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(quiet);
    return us;
}

// The debug log lines of one type-1 query, in microseconds: the handler with
// the daemon's stderr logger (to /dev/null) less the handler with nothing
// logged (nor formatted).
double log_cost_us(const vorn_ctrl_msg &query_msg) {
    static vorn_node table[3];
    if (vorn_nodes == nullptr) {
        snprintf(table[1].logname, sizeof table[1].logname, "Alpha");
        snprintf(table[1].mask, sizeof table[1].mask, "m");
        table[1].logid = 1;
        vorn_nodes = table;
        vorn_node_count = 2;
    }
    fflush(stderr);
    int saved = dup(STDERR_FILENO);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    close(null);
    const int n = 20000;
    handler_us(query_msg, true, n / 10);  // warm-up
    double logged = handler_us(query_msg, true, n);
    double silent = handler_us(query_msg, false, n);
    dup2(saved, STDERR_FILENO);
    close(saved);
    return logged - silent;
}

pid_t start_daemon(const std::string &vornd, const std::string &root) {
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        execl(vornd.c_str(), vornd.c_str(), "--root", root.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

}  // namespace

int main(int argc, char **argv) {
    std::string self = argv[0];
    std::string vornd = argc > 1 ? argv[1] : self.substr(0, self.rfind('/') + 1) + "vornd";
    int queries = argc > 2 ? atoi(argv[2]) : 4000;
    int runs = argc > 3 ? atoi(argv[3]) : 5;
    if (queries < 100 || runs < 1) {
        fprintf(stderr, "usage: bench_socket [VORND [QUERIES >= 100 [RUNS]]]\n");
        return 2;
    }
    vorn_log_init();  // every priority, as in the daemon
    __android_log_set_logger(quiet);

    char tmpl[] = "/tmp/vorn-bench-XXXXXX";
    std::string dir = mkdtemp(tmpl);
    std::string root = dir + "/root";
    for (const char *d : {"/etc", "/data", "/dev/socket", "/sdcard/logs", "/system/bin"})
        std::filesystem::create_directories(root + d);
    std::filesystem::create_symlink("/bin/sh", root + "/system/bin/sh");
    std::ofstream(root + "/system/build.prop") << "";
    std::ofstream(root + "/etc/vorn-conf.xml")
        << "<vornconf version=\"1\">\n  <global log_path=\"/sdcard/logs/\"/>\n"
           "  <Dmesg logname=\"Dmesg\" enable=\"0\" logtype=\"128\" log_provider=\"dmesg\" "
           "log_filepath=\"Dmesg/dmesg\"/>\n"
           "  <Alpha logname=\"Alpha\" enable=\"0\" logtype=\"128\" log_provider=\"echo hi\" "
           "log_filepath=\"Alpha/alpha\" mask=\"m\"/>\n</vornconf>\n";

    pid_t pid = start_daemon(vornd, root);
    std::string daemon_sock = root + "/dev/socket/vornd";
    std::string peer_sock = dir + "/peer.sock";
    int peer_fd = listen_on(peer_sock);
    // A process of its own, as the daemon is: a thread of this one would
    // switch to and from the client more cheaply than any server can.
    pid_t peer_pid = fork();
    if (peer_pid == 0) {
        minimal_server(peer_fd);
        _exit(0);
    }
    close(peer_fd);

    vorn_ctrl_msg msg;
    vorn_msg_init(&msg, VORN_MSG_QUERY_NODE);
    vorn_msg_put_text(msg.logname, sizeof msg.logname, "Alpha");
    bool up = false;
    for (int i = 0; i < 500 && !up; i++) {
        up = query(daemon_sock, msg) >= 0;
        if (!up)
            usleep(10000);
    }
    if (!up) {
        fprintf(stderr, "bench_socket: %s did not answer on %s\n", vornd.c_str(),
                daemon_sock.c_str());
        kill(-pid, SIGKILL);
        kill(peer_pid, SIGKILL);
        return 1;
    }

    const std::string *targets[] = {&daemon_sock, &peer_sock};
    for (int warm = 0; warm < 200; warm++) {
        query(daemon_sock, msg);
        query(peer_sock, msg);
    }
    int failed = 0;
    printf("%-5s %12s %12s %12s %12s %12s %12s %12s\n", "run", "vornd q/s", "peer q/s", "vornd p99",
           "peer p99", "vornd p50", "peer p50", "log us/q");
    for (int run = 1; run <= runs && failed == 0; run++) {
        std::vector<double> lat[2];
        double total[2] = {0, 0};
        // Ten turns each, so that both see the same moments of machine load.
        for (int turn = 0; turn < 10; turn++) {
            for (int t = 0; t < 2; t++) {
                double t0 = now_us();
                for (int i = 0; i < queries / 10; i++) {
                    double us = query(*targets[t], msg);
                    if (us < 0)
                        failed++;
                    else
                        lat[t].push_back(us);
                }
                total[t] += now_us() - t0;
            }
        }
        if (failed > 0 || lat[0].empty() || lat[1].empty())
            break;
        stats d = summarize(lat[0], total[0]), p = summarize(lat[1], total[1]);
        double log_us = log_cost_us(msg);
        printf("%-5d %12.0f %12.0f %12.1f %12.1f %12.1f %12.1f %12.2f\n", run, d.qps, p.qps, d.p99,
               p.p99, d.p50, p.p50, log_us);
        printf(
            "run=%d vornd_qps=%.0f peer_qps=%.0f vornd_p99_us=%.1f peer_p99_us=%.1f "
            "vornd_p50_us=%.1f peer_p50_us=%.1f log_us=%.2f\n",
            run, d.qps, p.qps, d.p99, p.p99, d.p50, p.p50, log_us);
    }
    kill(-pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    kill(peer_pid, SIGKILL);
    waitpid(peer_pid, nullptr, 0);
    std::filesystem::remove_all(dir);
    if (failed > 0) {
        fprintf(stderr, "bench_socket: %d queries failed\n", failed);
        return 1;
    }
    return 0;
}
