// The log file writer and the pipe capture worker, measured on the file
// system of VORN_BENCH_DIR (default: the current directory). bench_writer.sh
// runs dd and cat against the same directory and prints the ratios.
//
//   BM_write_log_data/<chunk>/<budget>: write_log_data of 64 MiB in chunks,
//     rolling over at a tenth of the budget and pruning to ten files.
//   BM_pipe_capture/<bytes>: the pipe worker copying a provider that prints
//     as fast as it can (50-byte reads, a flush per write), from its first
//     byte on disk to its last.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
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

constexpr int64_t kWriteBytes = 64 << 20;

std::string g_root;  // the device root, inside VORN_BENCH_DIR

void silent_logger(const struct __android_logger_data *, const char *) {}

void set_log_root(const std::string &dir, int32_t global_size) {
    pthread_mutex_lock(&gbl_config_mutex);
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", dir.c_str());
    gbl_config.size = global_size;
    pthread_mutex_unlock(&gbl_config_mutex);
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

void BM_write_log_data(benchmark::State &state) {
    const int chunk = static_cast<int>(state.range(0));
    const int32_t budget = static_cast<int32_t>(state.range(1));
    std::vector<char> data(static_cast<size_t>(chunk), 'w');
    static int run = 0;
    std::string log_root = "/writer-" + std::to_string(++run) + "/";
    set_log_root(log_root, 0);
    vorn_node *node = new_node("true", "W/w", budget);
    vorn_log_file file{};
    char path[VORN_PATH_MAX];
    if (open_log_file(node, &file, path) != 0) {
        state.SkipWithError("cannot open the log file");
        return;
    }
    int64_t files = 0;
    for (auto _ : state) {
        for (int64_t done = 0; done < kWriteBytes; done += chunk) {
            uint64_t before = file.written;
            if (write_log_data(data.data(), chunk, &file, path, node) != chunk) {
                state.SkipWithError("write_log_data failed");
                break;
            }
            files += file.written < before + static_cast<uint64_t>(chunk);  // rolled over
        }
    }
    close_log_file(&file);
    state.SetBytesProcessed(state.iterations() * kWriteBytes);
    state.counters["files/s"] =
        benchmark::Counter(static_cast<double>(files), benchmark::Counter::kIsRate);
    fs::remove_all(vorn_path(log_root));
}
BENCHMARK(BM_write_log_data)
    ->Args({4096, 10 << 20})
    ->Args({4096, 1 << 20})
    ->Args({50, 10 << 20})
    ->UseRealTime()  // roll-overs spend their time in the shell that makes the directory
    ->Unit(benchmark::kMillisecond);

void BM_pipe_capture(benchmark::State &state) {
    const int64_t bytes = state.range(0);
    int64_t copied = 0;
    for (auto _ : state) {
        static int run = 0;
        std::string log_root = "/pipe-" + std::to_string(++run) + "/";
        set_log_root(log_root, 0);
        std::string provider = "head -c " + std::to_string(bytes) + " /dev/zero";
        vorn_node *node = new_node(provider.c_str(), "P/p", 0);
        node->enable = 1;
        vorn_node_create_work_thread(node);
        std::string dir = vorn_path(log_root + "P");
        // The worker's first poll comes 3 s after its start: time only the copy.
        uint64_t first = 0;
        while ((first = dir_bytes(dir)) == 0)
            usleep(200);
        auto t0 = clock_type::now();
        while (dir_bytes(dir) < static_cast<uint64_t>(bytes))
            usleep(200);
        auto t1 = clock_type::now();
        {
            vorn_node_guard g(node);  // no restart once the provider has ended
            node->enable = 0;
            node->pending_change = 1;
        }
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        copied += bytes - static_cast<int64_t>(first);
    }
    state.SetBytesProcessed(copied);
}
BENCHMARK(BM_pipe_capture)
    ->Arg(32 << 20)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    __android_log_set_logger(silent_logger);
    const char *dir = getenv("VORN_BENCH_DIR");
    char tmpl[] = "vorn-bench-XXXXXX";
    std::string base = dir && *dir ? dir : ".";
    std::string root = base + "/" + tmpl;
    if (mkdtemp(root.data()) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    g_root = fs::absolute(root).string();
    vorn_set_root(g_root.c_str());
    fs::create_directories(g_root + "/system/bin");
    fs::create_symlink("/bin/sh", g_root + "/system/bin/sh");

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(g_root, ec);
    return 0;
}
