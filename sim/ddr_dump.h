// vornsim ddr-dump: a DDR dump directory whose printk ring holds kernel
// messages (this host's own, or a file's), in the table format of this
// kernel's release.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct KmsgRecord {
    uint64_t ts_ns;
    std::string text;
};

// Records of /dev/kmsg-style lines ("PRIO,SEQ,USEC,FLAGS;TEXT", continuation
// lines skipped); other lines are taken whole with made-up rising times.
std::vector<KmsgRecord> parse_kmsg_lines(const std::string &text);
// Every record the kernel still holds (what dmesg shows).
bool read_host_kmsg(std::vector<KmsgRecord> *out, std::string *err);
// Writes the dump into dir. version is the kernel release as major*100+minor.
bool write_ddr_dump(const std::string &dir, const std::vector<KmsgRecord> &recs, int version,
                    uint64_t image_size, std::string *err);

int ddr_dump_main(const std::vector<std::string> &args);
