// The dump parser on a dump set of 4 GiB of sparse images holding a 1 MiB
// printk ring: time and bytes read (rchar of /proc/self/io) for whole
// parses, and the size of the kmsg.txt that the crash-reason scan reads back.
// bench_dumpparser.sh compares them with dd reading just the log.
//
//   bench_dumpparser DIR [RUNS]   writes the dump into DIR (kept), then parses
// Prints key=value lines.
#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "dumpparser/dumpparser.h"
#include "sim/dump_builder.h"

namespace {

using namespace dumpgen;

constexpr uint64_t kImage = 2ull << 30;  // two of them
constexpr uint32_t kLog = 1 << 20;

unsigned long long rchar() {
    std::ifstream in("/proc/self/io");
    std::string key;
    unsigned long long v;
    while (in >> key >> v) {
        if (key == "rchar:")
            return v;
    }
    return 0;
}

void quiet(const struct __android_logger_data *, const char *) {}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s DIR [RUNS]\n", argv[0]);
        return 2;
    }
    std::string dir = argv[1];
    int runs = argc > 2 ? atoi(argv[2]) : 5;
    __android_log_set_logger(quiet);

    // Records of kernel-like lengths until the ring's log length is 1 MiB.
    std::vector<Rec> recs;
    size_t total = 0;
    for (int i = 0; total + 128 < kLog; i++) {
        char text[128];
        snprintf(text, sizeof(text), "bench: message %d from cpu%d, %.*s", i, i % 8, i % 60,
                 "................................................................");
        recs.push_back({static_cast<uint64_t>(i) * 1000000, text});
        total += record(0, text).size();
    }
    uint32_t size = static_cast<uint32_t>(total + 4096);
    Ring ring = make_ring(recs, size, (size / 2) & ~3u);

    DumpDir d(dir);
    Layout l;
    l.idx = 0x100000000 + (3ull << 29);  // 1.5 GiB into the second image
    l.log_buf = l.idx + 0x1000;
    d.image(0x80000000, kImage);
    d.image(0x100000000, kImage);
    write_tables(d, 310, l, ring);
    d.finish();

    std::vector<double> ms;
    unsigned long long bytes = 0;
    int status = 0;
    for (int i = 0; i < runs; i++) {
        unsigned long long before = rchar();
        auto t0 = std::chrono::steady_clock::now();
        status |= dumpparser_parse_dir_version(dir.c_str(), 310);
        auto t1 = std::chrono::steady_clock::now();
        bytes = rchar() - before;
        ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    // The same without the broadcast's fork of the shell.
    std::vector<double> extract_ms;
    for (int i = 0; i < runs; i++) {
        char reason[DUMPPARSER_REASON_LEN] = "UNKNOWN";
        auto t0 = std::chrono::steady_clock::now();
        status |= dumpparser_extract(dir.c_str(), 310, reason);
        auto t1 = std::chrono::steady_clock::now();
        extract_ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    auto list = [](const std::vector<double> &v) {
        std::string out;
        for (double x : v) {
            if (!out.empty())
                out += ',';
            out += std::to_string(x);
        }
        return out;
    };
    printf("parse_ms_runs=%s\n", list(ms).c_str());
    printf("extract_ms_runs=%s\n", list(extract_ms).c_str());
    std::sort(ms.begin(), ms.end());
    std::sort(extract_ms.begin(), extract_ms.end());
    printf("status=%d\n", status);
    printf("images_bytes=%llu\n", static_cast<unsigned long long>(2 * kImage));
    printf("log_len=%u\n", ring.len);
    printf("log_image=%s\n", d.path("DDRCS1.BIN").c_str());
    printf("log_offset=%llu\n", static_cast<unsigned long long>(l.log_buf - 0x100000000));
    printf("parse_read_bytes=%llu\n", bytes);
    // get_reason scans the kmsg.txt just written; the rest comes from the dump.
    printf("kmsg_bytes=%llu\n",
           static_cast<unsigned long long>(std::filesystem::file_size(d.path("kmsg.txt"))));
    printf("parse_ms_median=%.3f\n", ms[ms.size() / 2]);
    printf("extract_ms_median=%.3f\n", extract_ms[extract_ms.size() / 2]);
    return status == 0 ? 0 : 1;
}
