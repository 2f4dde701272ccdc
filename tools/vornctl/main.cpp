// vornctl: options, usage and the command table.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/root.h"
#include "tools/vornctl/vornctl.h"

namespace {

const char kUsage[] =
    "Usage: vornctl [OPTIONS] COMMAND [ARGS]\n"
    "\n"
    "Talks to vornd over its control socket /dev/socket/vornd, and reads the log\n"
    "files under the daemon's log root to show what is really being captured.\n"
    "\n"
    "Commands:\n"
    "  query NAME               a node's slot, state, level, time, size and mask\n"
    "  enable NAME [--mask M]   switch a node on (with mask M; default: its current mask)\n"
    "  disable NAME             switch a node off\n"
    "  new-file NAME            ask the node's worker to start a new log file\n"
    "  global                   the global settings\n"
    "  set-log-path PATH        change the log root of every node\n"
    "  agent LINE...            run a Debug Agent line (the daemon sends no reply;\n"
    "                           --follow-log --log FILE shows its summary line in FILE)\n"
    "  archive LOGNAME DIR      zip DIR into <log path>/upload/LOGNAME/ (the daemon sends\n"
    "                           no reply; --wait waits for the archive and describes\n"
    "                           it, showing its growing size on a terminal)\n"
    "  status                   every node of the working configuration; for a capture\n"
    "                           node also its state, current file, that file's size\n"
    "                           and last write, and the files kept against its budget\n"
    "  tail NAME [-f] [-n N]    the last lines of the node's current file; -f follows\n"
    "                           the node's files across roll-overs\n"
    "\n"
    "Options:\n"
    "  --root DIR      the daemon's device root (vornd --root DIR)\n"
    "  --socket PATH   the control socket (default: /dev/socket/vornd under the root)\n"
    "  --json          print JSON (sizes in bytes, ages in seconds)\n"
    "  --wait          enable, disable, new-file: wait until the change shows (in the\n"
    "                  daemon's reply, and for a capture node a file opened or closed)\n"
    "                  and say what happened; archive: wait for the archive\n"
    "  --timeout SEC   how long to wait for a reply (10), a change (15), a summary\n"
    "                  line (5) or an archive (60); tail -f stops after SEC\n"
    "  -f              tail: follow the node's files, from one to the next\n"
    "  -n N            tail: print the last N lines (10)\n"
    "  --version       print the version\n"
    "  --help          print this help\n"
    "\n"
    "Capture states in status: writing (written within the last three polls, 9 s);\n"
    "starting (enabled less than 9 s ago, nothing written yet); stalled (enabled, but\n"
    "nothing written for more than 9 s: a failing provider, a full or missing log\n"
    "root); off (disabled). Files are read where vornctl runs: as root in adb shell\n"
    "on a phone, under --root on a host.\n"
    "\n"
    "Node changes are queued: the daemon applies one a second, and the node's worker\n"
    "acts on it at its next poll (every 3 s).\n"
    "\n"
    "Exit status: 0 success, 1 no reply, an unknown node or nothing seen in time,\n"
    "2 usage, 3 cannot connect.\n";

struct command {
    const char *name;
    int (*run)(const ctl_options &);
};

const command kCommands[] = {
    {"query", cmd_query},        {"enable", cmd_set_state}, {"disable", cmd_set_state},
    {"new-file", cmd_set_state}, {"global", cmd_global},    {"set-log-path", cmd_set_log_path},
    {"agent", cmd_agent},        {"archive", cmd_archive},  {"status", cmd_status},
    {"tail", cmd_tail},
};

// tail's own short options; elsewhere "-f" and "-n" stay operands (agent lines
// may hold them).
int parse_tail_option(int argc, char **argv, int *i, ctl_options *o) {
    std::string a = argv[*i];
    if (a == "-f") {
        o->follow = true;
        return -1;
    }
    const char *v = a.size() > 2 ? argv[*i] + 2 : *i + 1 < argc ? argv[++*i] : nullptr;
    char *end = nullptr;
    long n = v ? strtol(v, &end, 10) : -1;
    if (v == nullptr || *v == '\0' || *end != '\0' || n < 0 || n > 1000000)
        return ctl_fail(CTL_USAGE, "-n takes a number of lines (0 to 1000000)");
    o->lines = static_cast<int>(n);
    return -1;
}

// Returns -1 to go on, or the exit status.
int parse(int argc, char **argv, ctl_options *o) {
    bool options_done = false;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        bool in_tail = !o->args.empty() && o->args[0] == "tail";
        if (!options_done && in_tail && (a == "-f" || a.rfind("-n", 0) == 0)) {
            if (int rc = parse_tail_option(argc, argv, &i, o); rc >= 0)
                return rc;
            continue;
        }
        if (options_done || a.size() < 2 || a.compare(0, 2, "--") != 0) {
            o->args.push_back(a);
            continue;
        }
        if (a == "--") {
            options_done = true;
            continue;
        }
        if (a == "--help") {
            fputs(kUsage, stdout);
            return CTL_OK;
        }
        if (a == "--version") {
            printf("vornctl %s\n", VORNCTL_VERSION);
            return CTL_OK;
        }
        if (a == "--json") {
            o->json = true;
            continue;
        }
        if (a == "--wait") {
            o->wait = true;
            continue;
        }
        if (a == "--follow-log") {
            o->follow_log = true;
            continue;
        }
        std::string *value = a == "--root"     ? &o->root
                             : a == "--socket" ? &o->socket
                             : a == "--mask"   ? &o->mask
                             : a == "--log"    ? &o->log_file
                                               : nullptr;
        bool is_timeout = a == "--timeout";
        if (value == nullptr && !is_timeout)
            return ctl_fail(CTL_USAGE, "unknown option %s (see --help)", a.c_str());
        if (i + 1 >= argc)
            return ctl_fail(CTL_USAGE, "%s needs a value", a.c_str());
        const char *v = argv[++i];
        if (is_timeout) {
            char *end = nullptr;
            long t = strtol(v, &end, 10);
            if (*v == '\0' || *end != '\0' || t < 1 || t > 3600)
                return ctl_fail(CTL_USAGE, "--timeout takes 1 to 3600 seconds");
            o->timeout_sec = static_cast<int>(t);
            continue;
        }
        *value = v;
        if (a == "--mask")
            o->has_mask = true;
    }
    return -1;
}

}  // namespace

int main(int argc, char **argv) {
    ctl_options o;
    int rc = parse(argc, argv, &o);
    if (rc >= 0)
        return rc;
    if (o.args.empty())
        return ctl_fail(CTL_USAGE, "no command (see --help)");
    // The daemon's own helpers (node list, archive naming) resolve device
    // paths under the same root as the daemon.
    vorn_set_root(o.root.c_str());
    if (o.wait && o.args[0] != "archive" && o.args[0] != "enable" && o.args[0] != "disable" &&
        o.args[0] != "new-file")
        return ctl_fail(CTL_USAGE, "--wait goes with enable, disable, new-file and archive");
    if ((o.follow_log || !o.log_file.empty()) && o.args[0] != "agent")
        return ctl_fail(CTL_USAGE, "--follow-log and --log go with agent only");
    for (const auto &c : kCommands) {
        if (o.args[0] == c.name)
            return c.run(o);
    }
    return ctl_fail(CTL_USAGE, "unknown command %s (see --help)", o.args[0].c_str());
}
