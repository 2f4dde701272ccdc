// Type-1 queries against the real vornd, side by side with a minimal
// Unix-socket server that answers every connection with 256 bytes and closes
// (the same one-connection-at-a-time shape, no work behind it). Prints
// queries per second, p50 and p99 latency of each and their ratios.
//
//   bench_socket [VORND [QUERIES]]   (default: ./vornd next to this binary, 5000)
//
// A query is connect, send 256 bytes, read the reply and the close. The
// daemon's log goes to /dev/null.
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
#include <thread>
#include <vector>

#include "core/ctrl_msg.h"

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
    int queries = argc > 2 ? atoi(argv[2]) : 5000;
    if (queries < 100) {
        fprintf(stderr, "usage: bench_socket [VORND [QUERIES >= 100]]\n");
        return 2;
    }

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
    std::thread(minimal_server, peer_fd).detach();

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
        return 1;
    }

    // Alternate rounds so that both see the same machine load.
    const std::string *targets[] = {&daemon_sock, &peer_sock};
    std::vector<double> lat[2];
    double total[2] = {0, 0};
    int failed = 0;
    for (int warm = 0; warm < 200; warm++) {
        query(daemon_sock, msg);
        query(peer_sock, msg);
    }
    const int rounds = 10;
    for (int r = 0; r < rounds; r++) {
        for (int t = 0; t < 2; t++) {
            double t0 = now_us();
            for (int i = 0; i < queries / rounds; i++) {
                double us = query(*targets[t], msg);
                if (us < 0)
                    failed++;
                else
                    lat[t].push_back(us);
            }
            total[t] += now_us() - t0;
        }
    }
    kill(-pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    std::filesystem::remove_all(dir);
    if (failed > 0 || lat[0].empty() || lat[1].empty()) {
        fprintf(stderr, "bench_socket: %d queries failed\n", failed);
        return 1;
    }

    stats d = summarize(lat[0], total[0]), p = summarize(lat[1], total[1]);
    printf("%-28s %10s %10s %10s\n", "type-1 query", "q/s", "p50 us", "p99 us");
    printf("%-28s %10.0f %10.1f %10.1f\n", "vornd", d.qps, d.p50, d.p99);
    printf("%-28s %10.0f %10.1f %10.1f\n", "minimal 256-byte server", p.qps, p.p50, p.p99);
    printf("ratio vornd/minimal: throughput %.2f, p99 latency %.2f\n", d.qps / p.qps,
           d.p99 / p.p99);
    return 0;
}
