// The log file writer and the pipe capture worker, one measured run per call,
// on the file system of --dir. bench_writer.sh runs dd and cat against the
// same directory, alternating with these runs, and prints the ratios.
//
//   bench_writer write --dir DIR [--chunk 4096] [--budget 0] [--mib 64]
//     write_log_data of MIB MiB in chunks, each write flushed at once as the
//     capture workers do; a budget other than 0 rolls over at a tenth of it
//     and prunes to ten files. Prints "mb_per_s=", "files=" and, with a
//     budget, "rollover_us=" (the mean time a roll-over added to its write).
//   bench_writer pipe --dir DIR [--mib 64]
//     the pipe worker copying a provider that prints as fast as it can, from
//     its first byte on disk to its last. Prints "mb_per_s=".
//   bench_writer cat --dir DIR [--mib 64]
//     the peer: `head -c | cat > FILE`, timed the same way.
#include <android/log.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "capture/capture_worker.h"
#include "capture/log_writer.h"
#include "core/gbl_config.h"
#include "core/node.h"
#include "core/node_ops.h"
#include "platform/root.h"

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

void silent_logger(const struct __android_logger_data *, const char *) {}

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

void set_log_root(const std::string &dir) {
    gbl_config_guard g;
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", dir.c_str());
    gbl_config.size = 0;
}

// Node records are never freed: a worker holds its node for ever.
vorn_node *new_node(const char *provider, const char *filepath, int32_t size) {
    auto *node = static_cast<vorn_node *>(calloc(1, sizeof(vorn_node)));
    pthread_mutex_init(&node->lock, nullptr);
    snprintf(node->logname, sizeof node->logname, "Bench");
    node->logtype = VORN_KIND_PIPE;
    node->size = size;
    node->log_provider = strdup(provider);
    node->log_filepath = strdup(filepath);
    static const vorn_node_ops row = {"Bench", check_capture_ops, set_node_state, set_node_state,
                                      capture_pipe};
    node->ops = &row;
    return node;
}

uint64_t dir_bytes(const std::string &dir) {
    uint64_t total = 0;
    std::error_code ec;
    for (const auto &e : fs::directory_iterator(dir, ec))
        total += e.file_size(ec);
    return total;
}

// Prints the copy rate into dir, timed from its first byte on disk until it
// holds bytes in all.
void print_copy_rate(const std::string &dir, int64_t bytes) {
    uint64_t first = 0;
    while ((first = dir_bytes(dir)) == 0)
        usleep(200);
    auto t0 = clock_type::now();
    while (dir_bytes(dir) < static_cast<uint64_t>(bytes))
        usleep(200);
    double s = seconds_since(t0);
    printf("mb_per_s=%.1f\n", static_cast<double>(bytes - static_cast<int64_t>(first)) / s / 1e6);
}

int run_write(int chunk, int32_t budget, int64_t total) {
    std::vector<char> data(static_cast<size_t>(chunk), 'w');
    set_log_root("/writer/");
    vorn_node *node = new_node("true", "W/w", budget);
    vorn_log_file file{};
    char path[VORN_PATH_MAX];
    if (open_log_file(node, &file, path) != 0) {
        fprintf(stderr, "bench_writer: cannot open the log file\n");
        return 1;
    }
    int64_t files = 0;
    double rollover_s = 0, plain_s = 0;
    int64_t plain = 0;
    auto t0 = clock_type::now();
    for (int64_t done = 0; done < total; done += chunk) {
        uint64_t before = file.written;
        auto w0 = clock_type::now();
        if (write_log_data(data.data(), chunk, &file, path, node) != chunk) {
            fprintf(stderr, "bench_writer: write_log_data failed\n");
            return 1;
        }
        fflush(file.fp);
        double took = seconds_since(w0);
        if (file.written < before + static_cast<uint64_t>(chunk)) {
            files++;
            rollover_s += took;
        } else {
            plain++;
            plain_s += took;
        }
    }
    double s = seconds_since(t0);
    close_log_file(&file);
    printf("mb_per_s=%.1f\n", static_cast<double>(total) / s / 1e6);
    printf("files=%lld\n", static_cast<long long>(files));
    if (files > 0 && plain > 0) {
        double extra =
            rollover_s / static_cast<double>(files) - plain_s / static_cast<double>(plain);
        printf("rollover_us=%.1f\n", extra * 1e6);
    }
    return 0;
}

int run_pipe(int64_t bytes) {
    set_log_root("/pipe/");
    std::string provider = "head -c " + std::to_string(bytes) + " /dev/zero";
    vorn_node *node = new_node(provider.c_str(), "P/p", 0);
    node->enable = 1;
    vorn_node_create_work_thread(node);
    std::string dir = vorn_path("/pipe/P");
    // The worker's first poll comes 3 s after its start: time only the copy.
    print_copy_rate(dir, bytes);
    // The worker thread and its provider end with the process.
    return 0;
}

// The peer, timed the same way: `cat` copying the same provider's output
// into a file of the same directory, from its first byte on disk to its last.
int run_cat(int64_t bytes) {
    std::string dir = vorn_path("/cat");
    fs::create_directories(dir);
    std::string cmd = "head -c " + std::to_string(bytes) + " /dev/zero | cat > " + dir + "/c";
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    print_copy_rate(dir, bytes);
    waitpid(pid, nullptr, 0);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr,
                "usage: bench_writer write|pipe|cat --dir DIR [--chunk N] [--budget N] "
                "[--mib N]\n");
        return 2;
    }
    std::string mode = argv[1];
    std::string base = ".";
    int chunk = 4096;
    long budget = 0;
    int64_t mib = 64;
    for (int i = 2; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        if (opt == "--dir")
            base = argv[i + 1];
        else if (opt == "--chunk")
            chunk = atoi(argv[i + 1]);
        else if (opt == "--budget")
            budget = atol(argv[i + 1]);
        else if (opt == "--mib")
            mib = atoll(argv[i + 1]);
    }
    __android_log_set_logger(silent_logger);
    std::string root = base + "/vorn-bench-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    root = fs::absolute(root).string();
    vorn_set_root(root.c_str());
    fs::create_directories(root + "/system/bin");
    fs::create_symlink("/bin/sh", root + "/system/bin/sh");

    int rc = 2;
    if (mode == "write" && chunk > 0)
        rc = run_write(chunk, static_cast<int32_t>(budget), mib << 20);
    else if (mode == "pipe")
        rc = run_pipe(mib << 20);
    else if (mode == "cat")
        rc = run_cat(mib << 20);
    std::error_code ec;
    fs::remove_all(root, ec);
    fflush(stdout);
    // Skip destructors: a pipe worker may still hold its node.
    _exit(rc);
}
