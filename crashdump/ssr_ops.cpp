// Enable and disable op of the "ssr" node: switch the kernel's
// subsystem-restart ramdumps and every subsystem's restart level.
#include <cstdio>
#include <cstring>
#include <string>

#include "core/command_line.h"
#include "core/shell.h"
#include "crashdump/crashdump.h"
#include "crashdump/ssr.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

const char *const kSubsysNames[] = {
    "ADSP(both Sensors and LPASS)",
    "Modem",
    "PRONTO",
    "Venus",
};

// Made group-writable by the enable op; not paired with the names above.
const char *const kRamdumpDevices[] = {
    "/dev/ramdump_adsp",       "/dev/ramdump_modem", "/dev/ramdump_pronto",
    "/dev/ramdump_smem-modem", "/dev/ramdump_venus",
};

// Builds and runs one of the op's command lines; the device paths in it are
// resolved under the root and kept one word each.
int run_line(const char *fmt, const std::string &arg) {
    char cmd[SSR_PATH_LEN];
    int n = snprintf(cmd, sizeof cmd, fmt, arg.c_str());
    VLOGI("cmd = %s\n", cmd);
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd) {
        VLOGE("Run command (%s) failed(%s)\n", cmd, strerror(ENAMETOOLONG));
        return -1;
    }
    return run_daemon_line(cmd);
}

std::string sys_word(const char *device_path) {
    return shell_word(vorn_path(device_path));
}

std::string restart_level(int subsys) {
    char path[SSR_PATH_LEN];
    snprintf(path, sizeof path, "/sys/bus/msm_subsys/devices/subsys%d/restart_level", subsys);
    return sys_word(path);
}

void set_levels(const char *level) {
    std::string fmt = std::string("echo ") + level + " > %s";
    for (int i = 0; i < 4; i++) {
        if (run_line(fmt.c_str(), restart_level(i)) != 0)
            VLOGE("Failed to set subsystem %s restart level to RELATED", kSubsysNames[i]);
    }
}

}  // namespace

int ssr_enable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    VLOGI("SSR : enable qualcomm subsystem restart ramdump");
    if (run_line("echo 1 > %s", sys_word(SSR_ENABLE_RAMDUMPS)) != 0)
        VLOGE("Failed to enable subsystem ramdump (%s)", strerror(errno));
    set_levels("related");
    for (const char *dev : kRamdumpDevices)
        run_line("chmod 664 %s", sys_word(dev));
    if (node != nullptr)
        node->enable = cmd != nullptr ? (cmd->enable & VORN_ENABLE_BIT) : 1;
    return 0;
}

int ssr_disable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    VLOGI("SSR : disable subsystem ramdump");
    if (run_line("echo 0 > %s", sys_word(SSR_ENABLE_RAMDUMPS)) != 0)
        VLOGE("Failed to disable subsystem ramdump");
    // The failure line reads RELATED for both levels: tools on the phone match that text.
    set_levels("SYSTEM");
    if (node != nullptr)
        node->enable = cmd != nullptr ? (cmd->enable & VORN_ENABLE_BIT) : 0;
    return 0;
}
