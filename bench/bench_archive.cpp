// Archive benchmark: mini_zip against Info-ZIP's `zip -r -6` on the same
// input in the same run: 200 MB of generated kernel-log and logcat text and a
// 100 MB ramdump-like binary. Prints the median wall time and archive size of
// each and their ratios (mini_zip / zip).
//
//   bench_archive [--data DIR] [--runs N]
//
// DIR (default ./bench-archive-data) keeps the generated input between runs.
// mini_zip removes what it archives, so every run packs a fresh copy; the copy
// is not timed. am must be on PATH (bench_archive.sh puts the recording one there).
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "archive/mini_zip.h"
#include "core/ctrl_msg.h"
#include "core/gbl_config.h"
#include "platform/log.h"
#include "platform/root.h"

namespace fs = std::filesystem;

namespace {

const size_t kTextFileSize = 10u << 20;  // ten 10 MB files of each kind
const int kTextFiles = 10;
const size_t kDumpSize = 100u << 20;

// Message templates; every %d is filled from a pool of values of its own, as
// real logs repeat the same pids, ids and readings.
const char *kKernel[] = {
    "msm_thermal: Temperature of sensor %d is %dC, mitigation level %d",
    "binder: %d:%d transaction failed 29189/-22, size %d-%d line 3039",
    "healthd: battery l=%d v=%d t=%d.0 h=2 st=3 c=%d fc=3219000 chg=u",
    "lowmemorykiller: Killing 'com.example.app%d' (%d), adj %d, to free %dkB on behalf of "
    "'kswapd0'",
    "mdss_fb: commit_kickoff: frame %d vsync %d ts %d.%d",
    "wlan: [%d:E:WMI] WMI_STATS_EXT_EVENTID: pdev %d vdev %d rssi -%d",
    "ipa_uc_offload: pipe %d ep %d ring 0x%x doorbell 0x%x",
    "subsys-restart: subsystem %d: powerup took %d ms, crash count %d",
    "sched: CPU%d: update max cpu_capacity %d",
    "qcom,glink: glink_rx: ch %d intent 0x%x size %d",
    "sde_rsc: sde_rsc_client_vote: client %d state %d ab %d ib %d",
    "kgsl-3d0: ringbuffer %d timestamp 0x%x retired 0x%x",
    "cfg80211: Regulatory domain changed to country: %d, flags 0x%x",
    "android_work: sent uevent USB_STATE=CONFIGURED %d",
    "PM: suspend entry (deep) %d wakeup_source pending %d",
    "icnss: QMI WLFW service event %d, state 0x%x",
};
const char *kLogcatTags[] = {
    "ActivityManager", "WindowManager", "PackageManager",   "AudioFlinger",
    "SurfaceFlinger",  "chatty",        "WifiService",      "ConnectivityService",
    "BatteryService",  "InputReader",   "QC-time-services", "RILJ",
    "vornd",           "ThermalEngine", "CameraService",    "Zygote"};
const char *kLogcat[] = {
    "Start proc %d:com.example.app%d/u0a%d for service {com.example.app%d/.SyncService}",
    "Relayout Window{%x u0 com.android.systemui.ImageWallpaper}: viewVisibility=%d req=%dx%d",
    "getPackageInfo: package com.vendor.pkg%d not found, flags 0x%x uid %d",
    "AudioFlinger::OutputTrack %d underrun, frames %d, server %d",
    "Display %d HWC layers: %d, client composition %d, vsync period %d ns",
    "uid=%d(u0_a%d) identical %d lines",
    "Network %d validated, score %d, rssi -%d, link speed %d Mbps",
    "NetworkAgentInfo [WIFI () - %d] validation passed after %d ms",
    "level:%d, scale:100, status:%d, health:2, present:true, voltage:%d, temperature:%d",
    "Touch event: action=%d x=%d y=%d pointers=%d",
    "Time %d.%d set from network, drift %d ms",
    "[%04d]> RIL_REQUEST_SIGNAL_STRENGTH [SignalStrength: %d %d %d %d]",
    "log_node %d enabled, mask 0x%x, size %d",
    "Sensor %d temp %d, threshold %d crossed, action %d",
    "Camera %d: client pid %d connected, api level %d",
    "Forked child process %d in %d ms",
};

// Kernel-log and logcat (threadtime) lines with the variety of real logs.
void write_text(const std::string &path, bool kernel, unsigned seed) {
    std::mt19937 gen(seed);
    FILE *f = fopen(path.c_str(), "we");
    if (f == nullptr) {
        perror(path.c_str());
        exit(1);
    }
    // A value from a pool of n recurring values.
    auto pick = [&gen](int n) {
        return static_cast<int>(gen() % static_cast<unsigned>(n)) * 37 + 11;
    };
    size_t written = 0;
    double uptime = 1000.0 * seed;
    char line[512], msg[384];
    while (written < kTextFileSize) {
        int k = static_cast<int>(gen() % 16);
        uptime += (gen() % 50000) / 1e6;
        snprintf(msg, sizeof msg, kernel ? kKernel[k] : kLogcat[k], pick(40), pick(200), pick(20),
                 pick(1000), pick(60), pick(8));
        int n;
        if (kernel) {
            n = snprintf(line, sizeof line, "<%d>[%11.6f] %s\n", 3 + static_cast<int>(gen() % 4),
                         uptime, msg);
        } else {
            int secs = static_cast<int>(uptime);
            const char prio[] = "VDIWE";
            int pid = 500 + k * 37;
            n = snprintf(line, sizeof line, "01-02 %02d:%02d:%02d.%03d %5d %5d %c %-8s: %s\n",
                         secs / 3600 % 24, secs / 60 % 60, secs % 60,
                         static_cast<int>(uptime * 1000) % 1000, pid, pid + pick(6) % 50,
                         prio[gen() % 5], kLogcatTags[k], msg);
        }
        fwrite(line, 1, static_cast<size_t>(n), f);
        written += static_cast<size_t>(n);
    }
    fclose(f);
}

// A ramdump-like image: zero pages, incompressible pages (compressed or
// encrypted memory), instruction-like words and pages of strings.
void write_dump(const std::string &path) {
    std::mt19937 gen(42);
    FILE *f = fopen(path.c_str(), "we");
    if (f == nullptr) {
        perror(path.c_str());
        exit(1);
    }
    std::vector<uint32_t> page(1024);
    for (size_t done = 0; done < kDumpSize; done += 4096) {
        unsigned kind = gen() % 100;
        for (size_t i = 0; i < page.size(); i++) {
            if (kind < 40) {
                page[i] = 0;
            } else if (kind < 60) {
                page[i] = gen();
            } else if (kind < 85) {
                // AArch64-like encodings: few opcodes, random registers and offsets.
                static const uint32_t ops[] = {0xf9400000, 0xf9000000, 0xaa0003e0, 0x94000000,
                                               0xd65f03c0, 0x52800000, 0xb4000000, 0x91000000};
                page[i] = ops[gen() % 8] | (gen() & 0x3ff);
            } else {
                const char *s = kLogcat[gen() % 16];
                memcpy(&page[i], s + (i % 8) * 4, 4);
            }
        }
        fwrite(page.data(), 4, page.size(), f);
    }
    fclose(f);
}

void generate(const std::string &input) {
    if (fs::exists(input + ".done"))
        return;
    fs::remove_all(input);
    fs::create_directories(input);
    printf("generating %s ...\n", input.c_str());
    fflush(stdout);
    for (int i = 0; i < kTextFiles; i++) {
        write_text(input + "/kernel.log." + std::to_string(i), true, 1 + i);
        write_text(input + "/logcat.main." + std::to_string(i), false, 100 + i);
    }
    write_dump(input + "/DDRCS0.BIN");
    FILE *f = fopen((input + "/description_bench.txt").c_str(), "we");
    fputs("benchmark crash\n", f);
    fclose(f);
    f = fopen((input + ".done").c_str(), "we");
    fclose(f);
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

int run(const std::vector<std::string> &argv, const std::string &dir) {
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0)
            _exit(127);
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// CPU seconds of this process and its waited-for children so far.
double cpu_seconds() {
    double t = 0;
    for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage ru;
        getrusage(who, &ru);
        t += ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
             (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    }
    return t;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
    std::string data = "bench-archive-data";
    int runs = 3;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--data") == 0)
            data = argv[i + 1];
        else if (strcmp(argv[i], "--runs") == 0)
            runs = atoi(argv[i + 1]);
    }
    data = fs::absolute(data).string();
    std::string input = data + "/input", root = data + "/root";
    generate(input);
    // The daemon's debug lines would only time the terminal.
    vorn_log_init();
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    vorn_set_root(root.c_str());
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", "/sdcard/logs/");
    std::string archive = root + "/sdcard/logs//upload/bench/log_bench.txt.zip";
    std::string zip_out = data + "/infozip.zip";

    uint64_t input_bytes = 0;
    for (const auto &e : fs::directory_iterator(input))
        input_bytes += e.is_regular_file() ? e.file_size() : 0;

    std::vector<double> t_ours, t_zip, c_ours, c_zip;
    uintmax_t size_ours = 0, size_zip = 0;
    for (int r = 0; r < runs; r++) {
        // Fresh copy for mini_zip, which removes its source.
        fs::remove_all(root);
        fs::create_directories(root + "/sdcard/logs");
        fs::copy(input, root + "/sdcard/logs/dump", fs::copy_options::recursive);
        sync();

        auto *msg = static_cast<vorn_ctrl_msg *>(calloc(1, sizeof(vorn_ctrl_msg)));
        msg->msg_type = VORN_MSG_ARCHIVE;
        snprintf(msg->logname, sizeof msg->logname, "bench");
        snprintf(msg->mask, sizeof msg->mask, "/sdcard/logs/dump");
        double c0 = cpu_seconds();
        auto t0 = std::chrono::steady_clock::now();
        mini_zip(msg);
        t_ours.push_back(seconds_since(t0));
        c_ours.push_back(cpu_seconds() - c0);
        std::error_code ec;
        size_ours = fs::file_size(archive, ec);
        if (ec || fs::exists(root + "/sdcard/logs/dump")) {
            fprintf(stderr, "mini_zip did not archive the input\n");
            return 1;
        }

        fs::remove(zip_out);
        c0 = cpu_seconds();
        t0 = std::chrono::steady_clock::now();
        if (run({"zip", "-r", "-6", "-q", zip_out, "."}, input) != 0) {
            fprintf(stderr, "zip failed\n");
            return 1;
        }
        t_zip.push_back(seconds_since(t0));
        c_zip.push_back(cpu_seconds() - c0);
        size_zip = fs::file_size(zip_out);
        printf(
            "run=%d mini_zip_s=%.3f zip_s=%.3f mini_zip_cpu_s=%.3f zip_cpu_s=%.3f "
            "mini_zip_bytes=%ju zip_bytes=%ju\n",
            r + 1, t_ours.back(), t_zip.back(), c_ours.back(), c_zip.back(), size_ours, size_zip);
        fflush(stdout);
    }
    double mo = median(t_ours), mz = median(t_zip), co = median(c_ours), cz = median(c_zip);
    printf("input      %.1f MB in %d files, median of %d runs\n", input_bytes / 1e6,
           2 * kTextFiles + 2, runs);
    printf("mini_zip   wall %.3f s (%.1f MB/s)  cpu %.3f s  archive %ju bytes\n", mo,
           input_bytes / 1e6 / mo, co, size_ours);
    printf("zip -r -6  wall %.3f s (%.1f MB/s)  cpu %.3f s  archive %ju bytes\n", mz,
           input_bytes / 1e6 / mz, cz, size_zip);
    printf(
        "ratio      wall %.3f  cpu %.3f  size %.4f  (mini_zip / zip; goal: time <= 1, "
        "size <= 1.01)\n",
        mo / mz, co / cz, static_cast<double>(size_ours) / static_cast<double>(size_zip));
    fs::remove_all(root);
    fs::remove(zip_out);
    return 0;
}
