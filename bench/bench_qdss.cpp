// The QDSS pipeline against dd, one after the other in this process, on the
// trace device of a simulated phone that vornsim has brought up (streaming
// at the rate vornsim trace set). dd bs=4096 copies MIB MiB of the device
// into one file; then the pipeline streams the same amount into the node's
// rotated files (a 10 MiB budget: a roll-over every MiB). Last, the writer
// is held up by one failed write (its file may not grow for an instant, as on
// a full disk) and the largest queue depth is taken meanwhile.
//
//   bench_qdss ROOT MIB
// prints dd_mbps, dd_cpu_s_per_gib, qdss_mbps, qdss_cpu_s_per_gib,
// depth_running, depth_held and max_pages, one key=value a line.
#include <android/log.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "core/gbl_config.h"
#include "platform/root.h"
#include "qdss/qdss.h"
#include "tests/support/full_disk.h"

namespace {

using clock_type = std::chrono::steady_clock;
constexpr double kGiB = 1024.0 * 1024 * 1024;

void silent_logger(const struct __android_logger_data *, const char *) {}

double seconds(const timeval &tv) {
    return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}
double cpu_seconds(const rusage &ru) {
    return seconds(ru.ru_utime) + seconds(ru.ru_stime);
}

// dd of bytes from the device into one file: wall seconds and CPU seconds.
bool run_dd(const std::string &device, const std::string &out, uint64_t bytes, double *wall,
            double *cpu) {
    std::string count = "count=" + std::to_string(bytes / 4096);
    auto t0 = clock_type::now();
    pid_t pid = fork();
    if (pid == 0) {
        std::string in = "if=" + device, of = "of=" + out;
        execlp("dd", "dd", in.c_str(), of.c_str(), "bs=4096", count.c_str(), "iflag=fullblock",
               "status=none", static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage ru{};
    if (pid < 0 || wait4(pid, &status, 0, &ru) != pid || status != 0)
        return false;
    *wall = std::chrono::duration<double>(clock_type::now() - t0).count();
    *cpu = cpu_seconds(ru);
    return true;
}

// Waits until the pipeline has saved at least bytes; false after 60 s.
bool wait_saved(const qdss_state &s, uint64_t bytes) {
    auto deadline = clock_type::now() + std::chrono::seconds(60);
    while (s.bytes_saved.load() < bytes) {
        if (clock_type::now() > deadline)
            return false;
        usleep(2000);
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: bench_qdss ROOT MIB\n");
        return 2;
    }
    __android_log_set_logger(silent_logger);
    vorn_set_root(argv[1]);
    uint64_t bytes = strtoull(argv[2], nullptr, 10) << 20;
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "/sdcard/logs/");
    std::filesystem::remove_all(vorn_path("/sdcard/logs/QDSS"));

    double dd_wall = 0, dd_cpu = 0;
    std::string dd_out = vorn_path("/sdcard/dd-trace.bin");
    if (!run_dd(vorn_path("/dev/byte-cntr"), dd_out, bytes, &dd_wall, &dd_cpu)) {
        fprintf(stderr, "dd of the trace device failed\n");
        return 1;
    }
    std::filesystem::remove(dd_out);

    vorn_node node{};
    pthread_mutex_init(&node.lock, nullptr);
    snprintf(node.logname, sizeof node.logname, "QDSS");
    snprintf(node.mask, sizeof node.mask, "/data/qdss.mask");
    node.log_provider = strdup("/dev/byte-cntr");
    node.log_filepath = strdup("QDSS/qdss");
    node.size = 10485760;
    node.enable = 1;
    node.pending_change = 1;
    qdss_buffers_init();
    if (qdss_start_pipeline(&qdss, &node) != 0) {
        fprintf(stderr, "the pipeline did not start\n");
        return 1;
    }
    // Past the start (programming, the first file), then the timed stretch.
    const uint64_t warm = 8 << 20;
    if (!wait_saved(qdss, warm)) {
        fprintf(stderr, "no trace saved\n");
        return 1;
    }
    rusage ru0{}, ru1{};
    getrusage(RUSAGE_SELF, &ru0);
    uint64_t b0 = qdss.bytes_saved.load();
    auto t0 = clock_type::now();
    if (!wait_saved(qdss, b0 + bytes))
        return 1;
    auto t1 = clock_type::now();
    getrusage(RUSAGE_SELF, &ru1);
    uint64_t saved = qdss.bytes_saved.load() - b0;
    double wall = std::chrono::duration<double>(t1 - t0).count();
    uint32_t depth_running = qdss.peak_filled.load();

    // One failed write holds the writer up for its 3-second pause.
    qdss.peak_filled = 0;
    {
        FileSizeLimit full(1);
        usleep(100 * 1000);
    }
    sleep(4);
    uint32_t depth_held = qdss.peak_filled.load();

    printf("dd_mbps=%.1f\n", static_cast<double>(bytes) / dd_wall / 1e6);
    printf("dd_cpu_s_per_gib=%.3f\n", dd_cpu / (static_cast<double>(bytes) / kGiB));
    printf("qdss_mbps=%.1f\n", static_cast<double>(saved) / wall / 1e6);
    printf("qdss_cpu_s_per_gib=%.3f\n",
           (cpu_seconds(ru1) - cpu_seconds(ru0)) / (static_cast<double>(saved) / kGiB));
    printf("depth_running=%u\ndepth_held=%u\nmax_pages=%u\n", depth_running, depth_held,
           qdss.max_pages);
    fflush(stdout);
    _exit(0);  // the pipeline's threads never end
}
