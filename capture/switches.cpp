#include "capture/switches.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/command_line.h"
#include "core/config.h"
#include "core/file_util.h"
#include "core/shell.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

constexpr const char *kDebugfs = "/sys/kernel/debug";
constexpr const char *kBtConf = "/etc/bluetooth/bt_stack.conf";
constexpr const char *kBtTemp = "/data/bt_temp.conf";
constexpr const char *kBtKey = "BtSnoopLogOutput";
// A query file is a short list; a bigger one is read only this far.
constexpr size_t kQueryFileMax = 64 * 1024;

// Reads the query file at a device path. Only a regular file is read: a FIFO
// or a device would keep the dispatcher reading for ever. Anything else fails
// as a missing file does. Returns 0 or -1.
int read_query_file(const char *path, std::string *text) {
    unique_fd fd(open(vorn_path(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    text->resize(kQueryFileMax);
    ssize_t n = read_full(fd.get(), text->data(), text->size());
    if (n < 0)
        return -1;
    text->resize(static_cast<size_t>(n));
    return 0;
}

}  // namespace

int set_dynamic_debug_mask(char *path, int on) {
    unique_malloc<char> owned(path);
    std::string text;
    if (read_query_file(path, &text) != 0)
        return -1;
    if (text.empty())
        return 0;  // no query: nothing to run, and that is success
    unique_file f(fmemopen(text.data(), text.size(), "r"));
    if (f == nullptr)
        return -1;
    std::string control = shell_word(vorn_path(kDebugfs) + "/dynamic_debug/control");
    int result = 0;
    char line[512];
    while (fgets(line, sizeof line, f.get())) {
        if (line[0] == '\n' || line[0] == '#')
            continue;
        line[strcspn(line, "\n")] = '\0';
        // The query sits inside single quotes: one of its own must not end them.
        std::string query;
        for (const char *c = line; *c != '\0'; c++)
            query += *c == '\'' ? std::string("'\\''") : std::string(1, *c);
        char cmd[1024];
        snprintf(cmd, sizeof cmd, on ? " echo -n '%s +p' > %s" : " echo -n '%s -p' > %s",
                 query.c_str(), control.c_str());
        VLOGD("%s: %s\n", "set_dynamic_debug_mask", cmd);
        int ret = run_daemon_line(cmd);
        if (ret != 0)
            VLOGE("%s: Failed to run cmd %s\n", "set_dynamic_debug_mask", cmd);
        result |= ret;
    }
    return result;
}

int vorn_set_dynamic_debug(vorn_node *, const vorn_ctrl_msg *cmd) {
    if (cmd == nullptr)
        return -1;
    char *path = strndup(cmd->mask, sizeof cmd->mask);
    if (path == nullptr)
        return -1;
    return set_dynamic_debug_mask(path, cmd->enable != 0);
}

int update_bt_conf(int on) {
    VLOGD("%s %s\n", "update_bt_conf", on ? "enable" : "disable");
    std::string system = shell_word(vorn_path("/system"));
    std::string cmd = "mount -o remount,rw " + system;
    if (run_daemon_line(cmd.c_str()) != 0) {
        VLOGE("Failed to remount system as RW\n");
        return -1;
    }
    bool found = false;
    {
        unique_file in(fopen(vorn_path(kBtConf).c_str(), "re"));
        unique_file out(in ? fopen(vorn_path(kBtTemp).c_str(), "we") : nullptr);
        if (!out) {
            VLOGE("Can't open bt conf file, err is %s!", strerror(errno));
            return -1;
        }
        char line[64];
        while (fgets(line, sizeof line, in.get())) {
            if (strncmp(line, kBtKey, strlen(kBtKey)) == 0) {
                fputs(on ? "BtSnoopLogOutput=true\n" : "BtSnoopLogOutput=false\n", out.get());
                found = true;
            } else {
                fputs(line, out.get());
            }
        }
    }
    if (!found) {
        VLOGE("%s: Failed to find BtSnoopLogOutput\n", "update_bt_conf");
        return -1;
    }
    if (copy_file(kBtConf, kBtTemp) != 0)
        return -1;
    cmd = "mount -o remount,ro " + system;
    if (run_daemon_line(cmd.c_str()) != 0) {
        VLOGE("Failed to remount system back to RO\n");
        return -1;
    }
    return 0;
}

int vorn_set_bluetooth(vorn_node *, const vorn_ctrl_msg *cmd) {
    if (cmd == nullptr) {
        VLOGE("%s: invalid arguments\n", "vorn_set_bluetooth");
        return -1;
    }
    return update_bt_conf(cmd->enable != 0);
}
