// Apps ETMs and their CPUs: how many CPUs carry an ETM, bringing a CPU online
// and switching an ETM while the hot-plug service is held off.
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/properties.h"
#include "platform/root.h"

namespace {

struct platform_row {
    const char *platform;
    int32_t cpus;  // -1: ask the kernel
};

const platform_row dagt_platform_table[] = {
    {"msm8226", 4},
    {"msm8974", 4},
    {"msm8610", -1},
    {"msm8916", -1},
};

constexpr int kMaxCpuProbes = 17;
constexpr const char *kCpuPresent = "/sys/devices/system/cpu/present";

// Reads up to DAGT_STATE_READ_LEN bytes of a device file into a zeroed buf;
// returns the byte count, -1 when it does not open, -2 when it does not read.
ssize_t read_small(const char *device_path, char *buf) {
    std::string file = vorn_path(device_path);
    unique_fd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return -1;
    ssize_t n = read_retry(fd.get(), buf, DAGT_STATE_READ_LEN);
    return n < 0 ? -2 : n;
}

int32_t count_from_kernel() {
    char buf[DAGT_STATE_BUF] = {};
    ssize_t n = read_small(kCpuPresent, buf);
    if (n == -1) {
        VLOGE("Unable to open %s\n", kCpuPresent);
        return -1;
    }
    if (n < 0) {
        VLOGE("Unable to read %s", kCpuPresent);
        return -1;
    }
    // "0-7": the last CPU's number plus one.
    const char *dash = strchr(buf, '-');
    if (dash != nullptr) {
        const char *last = dash + 1;
        size_t left = static_cast<size_t>(n) - static_cast<size_t>(last - buf);
        if (dagt_check_number(nullptr, last, left) == 0)
            return static_cast<int32_t>(strtol(last, nullptr, 0)) + 1;
    }
    // Otherwise count the CPU directories.
    int found = 0;
    for (int cpu = 0; cpu < kMaxCpuProbes; cpu++) {
        char dir[64];
        snprintf(dir, sizeof dir, "/sys/devices/system/cpu/cpu%01d", cpu);
        if (access(vorn_path(dir).c_str(), F_OK) != 0)
            break;
        found++;
    }
    return found > 0 ? found : -1;
}

}  // namespace

int32_t dagt_get_cpu_count() {
    char platform[VORN_PROP_VALUE_MAX];
    vorn_property_get("ro.board.platform", platform, "");
    int32_t count = 0;
    for (const platform_row &row : dagt_platform_table) {
        if (strcasecmp(platform, row.platform) == 0) {
            count = row.cpus >= 0 ? row.cpus : count_from_kernel();
            break;
        }
    }
    VLOGD("Total number of CPU is %d\n", count);
    return count;
}

int dagt_cpu_set_online(dagt_result *result, int cpu) {
    char path[DAGT_CMD_LEN];
    snprintf(path, sizeof path, "/sys/devices/system/cpu/cpu%01d/online", cpu);
    char buf[DAGT_STATE_BUF] = {};
    int rc = dagt_get_state(result, path, buf, DAGT_STATE_READ_LEN);
    if (rc != 0) {
        VLOGE("Failed to get online state of CPU%01d\n", cpu);
        return rc;
    }
    if (buf[0] != '0')
        return 0;
    rc = dagt_set_state(result, path, "enable");
    if (rc != 0)
        VLOGE("Failed to set CPU%01d online\n", cpu);
    return rc;
}

// The CPU of an ETM must be online to program it, and the hot-plug service
// must not take it away meanwhile; the service is restarted on every path
// once it was stopped.
uint32_t _dagt_etmx_enabledisable(dagt_result *result, uint32_t index, int enable) {
    VLOGD("%s\n", "_dagt_etmx_enabledisable");
    int32_t count = dagt_get_cpu_count();
    if (count < 1 || static_cast<int64_t>(count) <= static_cast<int64_t>(index)) {
        VLOGE("This target doesn't support ETM or index out of range\n");
        dagt_set_error(result, DAGT_ERR_NOT_PERMITTED);
        return dagt_code(result);
    }
    char value[VORN_PROP_VALUE_MAX];
    vorn_property_get("init.svc.mpdecision", value, "");
    bool stopped = false;
    if (strcmp(value, "running") == 0) {
        if (dagt_run_shell(result, "stop mpdecision") != 0) {
            VLOGE("Failed to stop service mpdecision (%s)\n", strerror(errno));
            return dagt_code(result);
        }
        stopped = true;
    }

    char path[DAGT_CMD_LEN];
    snprintf(path, sizeof path, "/sys/bus/coresight/devices/coresight-etm%01u/cpu", index);
    char buf[DAGT_STATE_BUF] = {};
    ssize_t n = read_small(path, buf);
    if (n == -1)
        VLOGE("Unable to open %s\n", path);
    else if (n <= 0)
        VLOGE("unable to read %s\n", path);
    bool online_ok = true;
    if (n > 0 && dagt_check_number(nullptr, buf, static_cast<size_t>(n)) == 0 &&
        strtol(buf, nullptr, 0) >= 0) {
        online_ok = dagt_cpu_set_online(result, static_cast<int>(strtol(buf, nullptr, 0))) == 0;
    } else if (count != 1) {
        // Without the ETM's CPU, bring up all but the last CPU.
        for (int cpu = 0; cpu < count - 1 && online_ok; cpu++)
            online_ok = dagt_cpu_set_online(result, cpu) == 0;
    }

    if (online_ok) {
        snprintf(path, sizeof path, "/sys/bus/coresight/devices/coresight-etm%01u/enable", index);
        if (dagt_set_state(result, path, enable ? "enable" : "disable") != 0)
            VLOGE("Failed to %s etm%01d\n", enable ? "enable" : "disable", static_cast<int>(index));
    }
    if (stopped && dagt_run_shell(result, "start mpdecision") != 0)
        VLOGE("Failed to restart service mpdecision\n");
    return dagt_code(result);
}
