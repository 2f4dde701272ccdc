// The extraction of one dump directory: table format from the kernel release,
// the images from load.cmm, the tables, the log buffer, kmsg.txt, the crash
// reason and the broadcast.
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/shell.h"
#include "dumpparser/dp_log.h"
#include "dumpparser/dump_io.h"
#include "dumpparser/dump_records.h"
#include "dumpparser/dumpparser.h"
#include "platform/io.h"
#include "platform/root.h"

namespace {

constexpr int kFirstVersion = 304;  // 3.4 kernels have format 1
constexpr uint64_t kV1TableAddrOff = 20500;
constexpr uint64_t kV2TableAddrOff = 16;

constexpr uint32_t kV1LogBufId = 11;
constexpr uint32_t kV1FirstIdxId = 12;
constexpr uint32_t kV2ApTableId = 0;
constexpr uint32_t kV2LogBufId = 272;
constexpr uint32_t kV2FirstIdxId = 273;

// A data record of the application processor's table: address and length.
constexpr size_t kDataRecord = sizeof(dp_data_record);
constexpr size_t kDataAddrOff = offsetof(dp_data_record, addr);
constexpr size_t kDataLenOff = offsetof(dp_data_record, len);

// Where the kernel log lies once the tables have been followed.
struct log_location {
    uint64_t addr;
    uint32_t len;
    int64_t first_idx;  // -1: no record index, the buffer is raw text
};

struct dump_ctx {
    const char *dir;
    dp_segments seg;
    char image[256];  // path of the image last located
};

uint64_t image_size(const char *device_path) {
    bool known = false;
    uint64_t size = file_size(device_path, &known);
    if (!known)
        DPLOGE("%s: %s open failed: %s", DP, device_path, strerror(errno));
    return size;
}

// Finds the image holding addr and names it in ctx.image; -1 when none does.
int locate(dump_ctx &ctx, uint64_t addr, uint64_t *off) {
    int i = dp_locate(ctx.seg, addr, off);
    if (i < 0)
        return -1;
    char name[32];
    snprintf(name, sizeof(name), "DDRCS%d.BIN", i);
    return dp_join(ctx.image, sizeof(ctx.image), ctx.dir, name);
}

int load_segments(dump_ctx &ctx) {
    for (int i = 0; i < ctx.seg.count; i++) {
        char name[32];
        char path[256];
        snprintf(name, sizeof(name), "DDRCS%d.BIN", i);
        if (dumpparser_segment_base(ctx.dir, i, &ctx.seg.base[i]) < 0) {
            DPLOGE("%s: unable to find %s in load.cmm.\n", DP, name);
            return -1;
        }
        if (dp_join(path, sizeof(path), ctx.dir, name) < 0)
            return -1;
        ctx.seg.size[i] = image_size(path);
        if (ctx.seg.size[i] == 0) {
            DPLOGE("%s: %s is empty.\n", DP, path);
            return -1;
        }
    }
    return 0;
}

int find_log_v1(dump_ctx &ctx, const char *table, uint64_t table_off, log_location *log) {
    uint64_t start, end;
    if (dumpparser_table_find_v1(table_off, kV1LogBufId, table, &start, &end) < 0) {
        DPLOGE("%s, unable to get data of LOG_BUF_ID_V1.\n", DP);
        return -1;
    }
    log->addr = start;
    log->len = static_cast<uint32_t>(end - start);

    uint64_t idx_addr, unused, off;
    if (dumpparser_table_find_v1(table_off, kV1FirstIdxId, table, &idx_addr, &unused) < 0) {
        DPLOGE("%s, unable to get first idx.\n", DP);
        return -1;
    }
    if (locate(ctx, idx_addr, &off) < 0) {
        DPLOGE("%s, first idx %llx is not in ddr dump.\n", DP,
               static_cast<unsigned long long>(idx_addr));
        return -1;
    }
    uint8_t idx[4];
    if (dumpparser_read_at(off, ctx.image, sizeof(idx), idx) < 0) {
        DPLOGE("%s, unable to get first idx.\n", DP);
        return -1;
    }
    log->first_idx = dp_le32(idx);
    return 0;
}

// The first index of format 2 sits behind a data record of its own.
int find_first_idx_v2(dump_ctx &ctx, uint64_t entry, int64_t *first_idx) {
    uint64_t off;
    if (locate(ctx, entry, &off) < 0) {
        DPLOGE("%s, first idx entry %llx is not in ddr dump.\n", DP,
               static_cast<unsigned long long>(entry));
        return -1;
    }
    uint8_t rec[kDataRecord];
    if (dumpparser_read_at(off, ctx.image, sizeof(rec), rec) < 0) {
        DPLOGE("%s, unable to get first idx entry.\n", DP);
        return -1;
    }
    uint64_t addr = dp_le64(rec + kDataAddrOff);
    if (locate(ctx, addr, &off) < 0) {
        DPLOGE("%s, first idx %llx is not in ddr dump.\n", DP,
               static_cast<unsigned long long>(addr));
        return -1;
    }
    uint8_t idx[4];
    if (dumpparser_read_at(off, ctx.image, sizeof(idx), idx) < 0) {
        DPLOGE("%s, unable to get first_idx.\n", DP);
        return -1;
    }
    *first_idx = dp_le32(idx);
    return 0;
}

int find_log_v2(dump_ctx &ctx, const char *table, uint64_t table_off, log_location *log) {
    uint64_t ap_table, off;
    if (dumpparser_table_find_v2(table_off, table, kV2ApTableId, &ap_table) < 0)
        return -1;
    if (locate(ctx, ap_table, &off) < 0) {
        DPLOGE("%s: entry_offset %llx is not in ddr dump.", DP,
               static_cast<unsigned long long>(ap_table));
        return -1;
    }
    // Both ids are looked up in this table, whichever image their records are in.
    char ap_image[sizeof(ctx.image)];
    memcpy(ap_image, ctx.image, sizeof(ap_image));
    uint64_t log_entry, idx_entry;
    if (dumpparser_table_find_v2(off, ap_image, kV2LogBufId, &log_entry) < 0)
        return -1;
    if (dumpparser_table_find_v2(off, ap_image, kV2FirstIdxId, &idx_entry) == 0 &&
        find_first_idx_v2(ctx, idx_entry, &log->first_idx) < 0) {
        return -1;
    }
    uint64_t rec_off;
    if (locate(ctx, log_entry, &rec_off) < 0) {
        DPLOGE("%s: entry_offset %llx is not in ddr dump.", DP,
               static_cast<unsigned long long>(log_entry));
        return -1;
    }
    uint8_t rec[kDataRecord];
    if (dumpparser_read_at(rec_off, ctx.image, sizeof(rec), rec) < 0) {
        DPLOGE("%s, unable to get log_buf entry.\n", DP);
        return -1;
    }
    log->addr = dp_le64(rec + kDataAddrOff);
    log->len = static_cast<uint32_t>(dp_le64(rec + kDataLenOff));
    return 0;
}

}  // namespace

int dumpparser_extract(const char *dir, int version, char *reason) {
    char out[256];
    char ocimem[256];
    if (dp_join(out, sizeof(out), dir, "kmsg.txt") < 0 ||
        dp_join(ocimem, sizeof(ocimem), dir, "OCIMEM.BIN") < 0) {
        DPLOGE("%s: %s open failed: %s", DP, dir, strerror(ENAMETOOLONG));
        return -1;
    }
    bool v1 = version == kFirstVersion;
    uint8_t raw[4];
    if (dumpparser_read_at(v1 ? kV1TableAddrOff : kV2TableAddrOff, ocimem, sizeof(raw), raw) < 0)
        return -1;
    uint32_t table_addr = dp_le32(raw);
    DPLOGD("%s, table addr is %lu.\n", DP, static_cast<unsigned long>(table_addr));

    dump_ctx ctx = {dir, {dumpparser_count_segments(dir, "DDRCS"), nullptr, nullptr}, {}};
    if (ctx.seg.count == 0)
        return 0;
    size_t n = static_cast<size_t>(ctx.seg.count);
    unique_malloc<uint64_t> base(static_cast<uint64_t *>(calloc(n, sizeof(uint64_t))));
    unique_malloc<uint64_t> size(static_cast<uint64_t *>(calloc(n, sizeof(uint64_t))));
    if (!base || !size) {
        DPLOGE("%s, unable to malloc offset_ddr or size_ddr.\n", DP);
        return -1;
    }
    ctx.seg.base = base.get();
    ctx.seg.size = size.get();
    if (load_segments(ctx) < 0)
        return -1;

    uint64_t table_off;
    if (locate(ctx, table_addr, &table_off) < 0) {
        DPLOGE("%s: memtab %lx is not in ddr dump.", DP, static_cast<unsigned long>(table_addr));
        return -1;
    }
    char table[sizeof(ctx.image)];
    memcpy(table, ctx.image, sizeof(table));
    log_location log = {0, 0, -1};
    if ((v1 ? find_log_v1(ctx, table, table_off, &log) : find_log_v2(ctx, table, table_off, &log)) <
        0) {
        return -1;
    }
    DPLOGD("%s, log_buf is %llx, buf_len is %lx.", DP, static_cast<unsigned long long>(log.addr),
           static_cast<unsigned long>(log.len));

    uint64_t log_off;
    if (locate(ctx, log.addr, &log_off) < 0) {
        DPLOGE("%s: log_buf %llx is not in ddr dump.", DP,
               static_cast<unsigned long long>(log.addr));
        return -1;
    }
    if (dumpparser_dump_kmsg(log_off, log.len, log.first_idx, ctx.image, out) < 0)
        return -1;
    get_reason(out, reason);
    return 0;
}

int dumpparser_kernel_version(const char *release) {
    if (release == nullptr)
        return -1;
    char *end;
    errno = 0;
    long major = strtol(release, &end, 10);
    if (end == release || *end != '.' || errno != 0)
        return -1;
    const char *minor_text = end + 1;
    long minor = strtol(minor_text, &end, 10);
    if (end == minor_text || errno != 0 || major < 0 || minor < 0 || major > 1000000 ||
        minor > 1000000) {
        return -1;
    }
    return static_cast<int>(major * 100 + minor);
}

int dumpparser_parse_dir_version(const char *dir, int version) {
    char reason[DUMPPARSER_REASON_LEN] = "UNKNOWN";
    int status;
    if (version < kFirstVersion) {
        DPLOGE("%s: unable to get version.\n", DP);
        status = -1;
    } else {
        status = dumpparser_extract(dir, version, reason);
    }
    char params[256];
    snprintf(params, sizeof(params), "--ei result %d --es para \"DumpParser %s %s\"", status,
             shell_dquoted(reason).c_str(), shell_dquoted(dir).c_str());
    send_broadcast(VORN_BROADCAST_ACTION, params);
    return status;
}

int dumpparser_parse_dir(const char *dir) {
    struct utsname u;
    int version = uname(&u) == 0 ? dumpparser_kernel_version(u.release) : -1;
    return dumpparser_parse_dir_version(dir, version);
}
