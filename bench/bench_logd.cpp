// Logd capture benchmark: entries per second from a fake logd through the
// logd worker into its rotated files, against a logcat-like peer (logcat_peer,
// next to this binary: liblog's threadtime formatting of the same stream from
// the same socket into a file) and against liblog's own process-and-format
// loop over the same entries in this process, the ceiling. Prints the rates
// of every run.
//
//   bench_logd [--entries N] [--runs N]
//
// Entries alternate between the main and system buffers with logcat-like
// tags and messages. The fake logd serves one reader at a time: in each run
// the peer reads the stream first, then the worker. The peer's run ends when
// it has closed its file; the capture's when the worker, disabled after the
// last entry, has closed its file with every line in it.
#include <android/log.h>
#include <log/logprint.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "capture/capture_variants.h"
#include "core/gbl_config.h"
#include "core/node.h"
#include "core/node_ops.h"
#include "platform/logd_reader.h"
#include "platform/root.h"
#include "sim/fake_logd.h"

namespace fs = std::filesystem;

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

const char *kTags[] = {"ActivityManager", "WifiStateMachine", "chatty",  "SurfaceFlinger",
                       "PowerManager",    "BatteryService",   "Zygote",  "NetworkController",
                       "AudioFlinger",    "CameraService",    "QC-time", "vold"};
const char *kMessages[] = {
    "Start proc %d:com.example.app%d/u0a%d for service {com.example/.Sync}",
    "setWifiEnabled: true pid=%d, uid=%d, package=com.android.settings",
    "uid=%d(u0_a%d) identical %d lines",
    "Display %d HWC layers: %d, client composition %d",
    "Acquiring suspend blocker \"PowerManagerService.Display\" (%d ms)",
    "level:%d, scale:100, status:2, health:2, present:true, voltage:%d, temperature:%d",
    "Process %d exited cleanly (%d)",
    "onSignalStrengthsChanged: level=%d dbm=-%d asu=%d",
    "Audio output %d: frames %d, underruns %d",
    "Camera %d: device connected, %d streams configured in %d ms",
};

std::vector<std::string> make_entries(size_t n) {
    std::mt19937 rng(7);
    std::vector<std::string> out;
    out.reserve(n);
    char msg[256];
    for (size_t i = 0; i < n; i++) {
        const char *fmt = kMessages[rng() % std::size(kMessages)];
        snprintf(msg, sizeof msg, fmt, static_cast<int>(rng() % 30000),
                 static_cast<int>(rng() % 1000), static_cast<int>(rng() % 100));
        log_id_t lid = (i % 2) ? LOG_ID_SYSTEM : LOG_ID_MAIN;
        out.push_back(FakeLogd::text_entry(
            lid, 3 + static_cast<int>(rng() % 4), kTags[rng() % std::size(kTags)], msg,
            1000 + static_cast<int>(rng() % 3000), 1700000000 + static_cast<uint32_t>(i / 1000),
            static_cast<uint32_t>(i % 1000) * 1000000));
    }
    return out;
}

// liblog alone: convert and format every entry; returns seconds and the
// bytes of text it made.
double liblog_loop(const std::vector<std::unique_ptr<log_msg>> &msgs, size_t *bytes) {
    AndroidLogFormat *format = android_log_format_new();
    android_log_setPrintFormat(format, FORMAT_TIME);
    char line[512];
    size_t total = 0;
    auto t0 = Clock::now();
    for (const auto &m : msgs) {
        AndroidLogEntry entry;
        if (android_log_processLogBuffer(&m->entry, &entry) < 0)
            continue;
        size_t len = 0;
        char *out = android_log_formatLogLine(format, line, sizeof line, &entry, &len);
        total += len;
        if (out != line)
            free(out);
    }
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    android_log_format_free(format);
    *bytes = total;
    return s;
}

// The transport alone: a bare reader of the same entries through the same
// socket, converting and writing nothing. The capture cannot beat it.
double transport_rate(FakeLogd &logd, const std::vector<std::string> &entries) {
    vorn_logger_list *list = vorn_logger_list_alloc(0, 0, 0);
    vorn_logger_open(list, LOG_ID_MAIN);
    vorn_logger_open(list, LOG_ID_SYSTEM);
    auto msg = std::make_unique<log_msg>();
    logd.send(entries[0]);
    vorn_logger_list_read(list, msg.get());  // connected
    auto t0 = Clock::now();
    logd.send_all(entries);
    size_t got = 0;
    while (got < entries.size() && vorn_logger_list_read(list, msg.get()) > 0)
        got++;
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    vorn_logger_list_free(list);
    return static_cast<double>(got) / s;
}

uintmax_t dir_bytes(const fs::path &dir) {
    uintmax_t total = 0;
    std::error_code ec;
    for (const auto &e : fs::directory_iterator(dir, ec))
        total += e.file_size(ec);
    return total;
}

// The peer: logcat_peer reading the same entries from the same socket.
// Returns entries per second, or -1.
double peer_rate(FakeLogd &logd, const std::vector<std::string> &entries, const std::string &peer,
                 const fs::path &out) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0)
        return -1;
    std::string count = std::to_string(entries.size());
    std::string socket_path = vorn_path("/dev/socket/logdr");
    std::string file = out.string();
    char *argv[] = {const_cast<char *>(peer.c_str()), socket_path.data(), file.data(), count.data(),
                    nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
    int readers = logd.readers();
    pid_t pid = -1;
    int rc = posix_spawn(&pid, peer.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_fds[1]);
    if (rc != 0) {
        close(pipe_fds[0]);
        fprintf(stderr, "bench_logd: cannot run %s\n", peer.c_str());
        return -1;
    }
    char said[64] = {};
    ssize_t got = read(pipe_fds[0], said, sizeof said - 1);  // "connected"
    while (got > 0 && logd.readers() == readers)
        usleep(1000);
    auto t0 = Clock::now();
    logd.send_all(entries);
    int status = 0;
    waitpid(pid, &status, 0);
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    close(pipe_fds[0]);
    if (got <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "bench_logd: the peer failed\n");
        return -1;
    }
    return static_cast<double>(entries.size()) / s;
}

void *run_worker(void *node) {
    capture_logd(static_cast<vorn_node *>(node));
    return nullptr;
}

void set_enable(vorn_node *node, bool on) {
    vorn_node_guard g(node);
    node->enable = on;
    node->pending_change = 1;
}

void quiet(const struct __android_logger_data *, const char *) {}

}  // namespace

int main(int argc, char **argv) {
    std::string self = argv[0];
    std::string peer = self.substr(0, self.rfind('/') + 1) + "logcat_peer";
    size_t n = 200000;
    int runs = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--entries") == 0)
            n = strtoul(argv[i + 1], nullptr, 10);
        else if (strcmp(argv[i], "--runs") == 0)
            runs = atoi(argv[i + 1]);
    }
    __android_log_set_logger(quiet);
    setenv("TZ", "UTC", 1);

    char tmpl[] = "/tmp/vorn-bench-logd-XXXXXX";
    fs::path root = mkdtemp(tmpl);
    vorn_set_root(root.c_str());
    fs::create_directories(root / "dev/socket");
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "/logs/");

    std::vector<std::string> entries = make_entries(n);
    std::string sentinel = FakeLogd::text_entry(LOG_ID_MAIN, 4, "bench", "end");
    std::vector<std::unique_ptr<log_msg>> msgs;
    for (const auto &e : entries) {
        msgs.push_back(std::make_unique<log_msg>());
        vorn_logdr_decode(e.data(), e.size(), msgs.back().get());
    }
    size_t text_bytes = 0;
    liblog_loop(msgs, &text_bytes);  // warm-up, and the size of the text

    FakeLogd logd((root / "dev/socket/logdr").string());
    static vorn_node node{};
    pthread_mutex_init(&node.lock, nullptr);
    snprintf(node.logname, sizeof node.logname, "AdbMain");
    node.logtype = VORN_LOGTYPE_ANDROID_LOG;
    node.log_provider = strdup("main;system");
    node.log_filepath = strdup("Adb/main");
    // One roll-over per run, at about 60 % of the text. (Two roll-overs in one
    // second would give the closed files one name, and the later rename
    // would replace the earlier file.)
    node.size = static_cast<int32_t>(text_bytes * 6);
    start_detached_thread(run_worker, &node, "vornd_AdbMain");

    std::vector<double> liblog_rates, capture_rates, transport_rates, peer_rates;
    for (int run = 0; run < runs; run++) {
        size_t bytes = 0;
        liblog_rates.push_back(static_cast<double>(n) / liblog_loop(msgs, &bytes));
        transport_rates.push_back(transport_rate(logd, entries));
        peer_rates.push_back(peer_rate(logd, entries, peer, root / "peer.txt"));
        if (peer_rates.back() < 0)
            return 1;

        fs::remove_all(root / "logs/Adb");
        int readers = logd.readers();
        set_enable(&node, true);
        while (logd.readers() == readers)
            usleep(10 * 1000);
        auto t0 = Clock::now();
        logd.send_all(entries);
        while (!logd.drained())
            usleep(200);
        usleep(1000);  // the worker acts on its last entry before the change
        set_enable(&node, false);
        logd.send(sentinel);
        auto deadline = Clock::now() + std::chrono::seconds(120);
        // The file closes with the last entry or with the sentinel after it.
        while (dir_bytes(root / "logs/Adb") < text_bytes) {
            if (Clock::now() > deadline) {
                fprintf(stderr, "bench_logd: the files hold %ju of %zu bytes\n",
                        dir_bytes(root / "logs/Adb"), text_bytes);
                return 1;
            }
            usleep(200);
        }
        double s = std::chrono::duration<double>(Clock::now() - t0).count();
        capture_rates.push_back(static_cast<double>(n) / s);
        size_t files = 0;
        for (auto it = fs::directory_iterator(root / "logs/Adb"); it != fs::directory_iterator();
             ++it)
            files++;
        printf(
            "run %d: liblog %.0f, bare reader %.0f, logcat peer %.0f, capture %.0f entries/s "
            "(%zu files)\n",
            run + 1, liblog_rates.back(), transport_rates.back(), peer_rates.back(),
            capture_rates.back(), files);
        printf("run=%d liblog_eps=%.0f bare_reader_eps=%.0f peer_eps=%.0f capture_eps=%.0f\n",
               run + 1, liblog_rates.back(), transport_rates.back(), peer_rates.back(),
               capture_rates.back());
    }
    printf("entries=%zu text_bytes=%zu\n", n, text_bytes);
    fs::remove_all(root);
    return 0;
}
