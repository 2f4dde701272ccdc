// Saves the CoreSight trace sinks (ETF, and ETR when it writes to memory)
// next to the ramdumps each time the collector reports a crash.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "crashdump/ssr.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

#define QDSS_ETF_NAME "coresight-tmc-etf"
#define QDSS_ETR_NAME "coresight-tmc-etr"
#define QDSS_ETF_SIZE 65536
#define QDSS_ETR_SIZE 1048576
#define QDSS_DEVICES "/sys/bus/coresight/devices/"
#define QDSS_ETF_CURR_SINK QDSS_DEVICES QDSS_ETF_NAME "/curr_sink"
#define QDSS_ETR_CURR_SINK QDSS_DEVICES QDSS_ETR_NAME "/curr_sink"
#define QDSS_ETR_OUT_MODE QDSS_DEVICES QDSS_ETR_NAME "/out_mode"

namespace {

unique_fd open_sys(const char *device_path) {
    unique_fd fd(open(vorn_path(device_path).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        VLOGE("Unable to open %s\n", device_path);
    return fd;
}

// Reads a sink's "curr_sink" flag: 1 when the sink is current, 0 when not,
// -1 (logged with the sink's short name) when it cannot be read.
int sink_is_current(const char *flag_path, const char *sink_name) {
    unique_fd flag = open_sys(flag_path);
    if (!flag.valid()) {
        VLOGE("Failed to save qdss %s dump\n", sink_name);
        return -1;
    }
    char sink[3] = {};
    if (read_retry(flag.get(), sink, 2) <= 0) {
        VLOGE("Unable to read qdss %s data\n", sink_name);
        VLOGE("Failed to save qdss %s dump\n", sink_name);
        return -1;
    }
    return sink[0] == '1';
}

// The ETF step of one crash; false ends the thread.
bool save_etf(const ssr_state *st) {
    int current = sink_is_current(QDSS_ETF_CURR_SINK, "etf");
    if (current < 0)
        return false;
    if (current == 1 && qdss_sink_dump(st, QDSS_ETF_NAME, QDSS_ETF_SIZE) < 0) {
        VLOGE("Failed to save qdss etf dump\n");
        return false;
    }
    return true;
}

// The ETR step of one crash (only in "mem" mode); false ends the thread.
bool save_etr(const ssr_state *st) {
    int current = sink_is_current(QDSS_ETR_CURR_SINK, "etr");
    if (current <= 0)
        return current == 0;
    unique_fd mode_fd = open_sys(QDSS_ETR_OUT_MODE);
    if (!mode_fd.valid()) {
        VLOGE("Failed to save qdss etr dump\n");
        return false;
    }
    char mode[5] = {};
    if (read_retry(mode_fd.get(), mode, 4) <= 0) {
        VLOGE("Unable to read qdss etr mode data\n");
        VLOGE("Failed to save qdss etr dump\n");
        return false;
    }
    if (strncmp(mode, "mem", 3) != 0) {
        VLOGE("Invalid qdss etr out_mode %s\n", mode);
        VLOGE("Failed to save qdss etr dump\n");
        return false;
    }
    if (qdss_sink_dump(st, QDSS_ETR_NAME, QDSS_ETR_SIZE) < 0) {
        VLOGE("Failed to save qdss etr dump\n");
        return false;
    }
    return true;
}

}  // namespace

int qdss_sink_dump(const ssr_state *st, const char *name, long size) {
    if (name == nullptr || size <= 0 || st == nullptr || st->folder == nullptr) {
        VLOGE("Invalid qdss device or size\n");
        return -EINVAL;
    }
    unique_malloc<char> buf(static_cast<char *>(malloc(static_cast<size_t>(size))));
    if (!buf) {
        VLOGE("Failed to allocate memory to read qdss\n");
        return -ENOMEM;
    }
    std::string dev = std::string("/dev/") + name;
    unique_fd in(open(vorn_path(dev).c_str(), O_RDONLY | O_CLOEXEC));
    if (!in.valid()) {
        VLOGE("Unable to open %s\n", dev.c_str());
        return -1;
    }
    char stamp[SSR_STAMP_LEN];
    if (ssr_timestamp(stamp, sizeof stamp) == nullptr)
        return -EINVAL;  // the formatter has said why
    char base[SSR_PATH_LEN];
    char path[SSR_PATH_LEN];
    snprintf(base, sizeof base, "%s/%s%s", st->folder, name, stamp);
    unique_fd out(ssr_open_dump_file(path, sizeof path, base, ".bin"));
    if (!out.valid()) {
        VLOGE("Unable to open %s\n", path);
        return -1;
    }
    size_t chunk =
        static_cast<size_t>(size) < SSR_COPY_CHUNK ? static_cast<size_t>(size) : SSR_COPY_CHUNK;
    long count = 0;
    for (;;) {
        ssize_t n = read_retry(in.get(), buf.get(), chunk);
        if (n < 1)
            break;
        if (write_all(out.get(), buf.get(), static_cast<size_t>(n)) < 0) {
            VLOGE("Writing qdss ramdump error\n");
            return -EIO;
        }
        count += n;
    }
    fsync(out.get());
    if (count != size) {
        VLOGE("qdss %s ramdump size mismatch\n", name);
        return -EINVAL;
    }
    VLOGI("qdss %s ramdump saved successfully\n", name);
    return 0;
}

void *qdss_sink_thread(void *arg) {
    auto *st = static_cast<ssr_state *>(arg);
    for (;;) {
        while (sem_wait(&st->qdss_sem) != 0 && errno == EINTR) {
        }
        if (st->stopping.load())
            break;
        if (!save_etf(st) || !save_etr(st))
            break;
    }
    return nullptr;
}
