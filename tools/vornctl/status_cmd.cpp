// vornctl status: every node of the working configuration as the daemon
// reports it, and what its files show: whether capture really happens.
#include <sys/stat.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tools/vornctl/node_files.h"
#include "tools/vornctl/vornctl.h"

namespace {

// What the files of one node show.
struct file_facts {
    bool captures = false;
    std::string state;  // writing, starting, stalled, off (capture); on, off (others)
    std::string file;   // current file relative to the log root, "" when none
    uint64_t file_size = 0;
    long long written = -1;  // seconds since the node's last write, -1 when none
    long long quiet = 0;     // seconds without output while enabled
    int open = -1;           // the daemon holds the current file open: 1, 0, -1 unknown
    size_t files = 0;
    uint64_t total = 0;
    uint64_t budget = 0;
};

file_facts facts_of(const ctl_options &o, const ctl_global &g, const vorn_config_row &row,
                    const ctl_node_view &n, long long conf_age,
                    const std::optional<open_set> &open) {
    file_facts f;
    f.captures = ctl_captures(row);
    if (!f.captures) {
        f.state = n.enable & 1 ? "on" : "off";
        return f;
    }
    node_place place = ctl_node_place(o, g.log_path, row.log_filepath);
    std::vector<node_file> files = ctl_scan_files(place);
    f.files = files.size();
    for (const node_file &file : files) {
        f.total += file.size;
        // An empty file's time is when it was opened: nothing was written.
        if (file.size > 0 && (f.written < 0 || ctl_age_of(file.mtime) < f.written))
            f.written = ctl_age_of(file.mtime);
    }
    f.budget = static_cast<uint32_t>(n.size != 0 ? n.size : g.size);
    long long opened = -1;
    if (const node_file *cur = ctl_current_file(files)) {
        f.file = place.rel(cur->name);
        f.file_size = cur->size;
        opened = ctl_age_of(cur->mtime);
        if (open)
            f.open = open->count({cur->dev, cur->ino}) ? 1 : 0;
    }
    if (!(n.enable & 1)) {
        f.state = "off";
        return f;
    }
    // Quiet since the last write, or since the worker opened its file (or,
    // with no file at all, since the last change).
    f.quiet = -1;
    for (long long t : {f.written, opened}) {
        if (t >= 0 && (f.quiet < 0 || t < f.quiet))
            f.quiet = t;
    }
    if (f.quiet < 0)
        f.quiet = conf_age;
    // A node switched on a moment ago (the daemon writes the configuration
    // back when it applies a change) may not have had its worker's poll yet:
    // until then its newest file is an old one that nobody holds open.
    bool just_changed =
        conf_age <= kStallSeconds && f.open != 1 && (opened < 0 || opened > conf_age);
    f.state = f.written >= 0 && f.written <= kStallSeconds ? "writing"
              : f.quiet <= kStallSeconds || just_changed   ? "starting"
                                                           : "stalled";
    return f;
}

void print_text_line(const ctl_node_view &n, const file_facts &f) {
    printf("%-4d %-15s %-7d %-5d %-10d %s\n", n.slot, n.name.c_str(), n.enable, n.loglevel, n.size,
           n.mask.c_str());
    if (!f.captures)
        return;
    std::string state = f.state;
    if (state == "stalled")
        state += " (enabled, no output for " + ctl_human_age(f.quiet) + ")";
    std::string budget = f.budget ? ctl_human_bytes(f.budget) : "no budget";
    if (f.files == 0) {
        printf("     %s: no log files yet (budget %s)\n", state.c_str(), budget.c_str());
        return;
    }
    std::string file =
        f.file.empty() ? "no current file" : f.file + ", " + ctl_human_bytes(f.file_size);
    file +=
        f.written < 0 ? ", nothing written" : ", last write " + ctl_human_age(f.written) + " ago";
    printf("     %s: %s; %zu file%s, %s of %s\n", state.c_str(), file.c_str(), f.files,
           f.files == 1 ? "" : "s", ctl_human_bytes(f.total).c_str(), budget.c_str());
}

void print_json_node(bool first, const ctl_node_view &n, const file_facts &f) {
    printf("%s{\"slot\":%d,\"name\":%s,\"enabled\":%d,\"level\":%d,\"size\":%d,\"mask\":%s,",
           first ? "" : ",", n.slot, ctl_json_string(n.name).c_str(), n.enable, n.loglevel, n.size,
           ctl_json_string(n.mask).c_str());
    printf("\"state\":%s", ctl_json_string(f.state).c_str());
    if (f.captures) {
        printf(",\"stalled\":%s,\"file\":%s,\"file_size\":%llu,\"last_write_age\":%s,",
               f.state == "stalled" ? "true" : "false",
               f.file.empty() ? "null" : ctl_json_string(f.file).c_str(),
               static_cast<unsigned long long>(f.file_size),
               f.written < 0 ? "null" : std::to_string(f.written).c_str());
        printf("\"open\":%s,", f.open < 0 ? "null" : f.open ? "true" : "false");
        printf("\"quiet\":%lld,\"files\":%zu,\"total_size\":%llu,\"budget\":%llu", f.quiet, f.files,
               static_cast<unsigned long long>(f.total), static_cast<unsigned long long>(f.budget));
    }
    printf("}");
}

}  // namespace

int cmd_status(const ctl_options &o) {
    if (o.args.size() != 1)
        return ctl_fail(CTL_USAGE, "usage: vornctl status (see --help)");
    // The daemon first: without it there is nothing live to show.
    ctl_global g;
    std::string why;
    if (int rc = ctl_query_global(o, &g, &why))
        return ctl_fail(rc, "%s", why.c_str());
    // The nodes as the daemon read them from its working configuration.
    std::string conf = ctl_host_path(o, VORN_WORK_CONF);
    struct stat conf_st;
    if (stat(conf.c_str(), &conf_st) != 0)
        return ctl_fail(CTL_NO_REPLY, "cannot read the working configuration %s", conf.c_str());
    long long conf_age = ctl_age_of(conf_st.st_mtim);
    std::vector<vorn_config_row> rows = vorn_config_rows(VORN_WORK_CONF);
    std::optional<open_set> open = ctl_open_files(g.daemon_pid);

    if (o.json)
        printf("[");
    else
        printf("%-4s %-15s %-7s %-5s %-10s %s\n", "SLOT", "NAME", "ENABLED", "LEVEL", "SIZE",
               "MASK");
    bool first = true;
    for (const vorn_config_row &row : rows) {
        vorn_ctrl_msg node;
        int rc = ctl_query_node(o, row.logname, &node, &why);
        if (rc == CTL_NO_CONNECT)
            return ctl_fail(rc, "%s", why.c_str());
        if (rc != CTL_OK) {  // no reply: the daemon dropped the node at load
            if (o.json) {
                printf(
                    "%s{\"slot\":null,\"name\":%s,\"enabled\":null,\"level\":null,"
                    "\"size\":null,\"mask\":null,\"state\":null}",
                    first ? "" : ",", ctl_json_string(row.logname).c_str());
            } else {
                printf("%-4s %-15s %-7s %-5s %-10s %s\n", "-", row.logname.c_str(), "-", "-", "-",
                       "-");
            }
        } else {
            ctl_node_view n = ctl_view_of(node);
            file_facts f = facts_of(o, g, row, n, conf_age, open);
            if (o.json)
                print_json_node(first, n, f);
            else
                print_text_line(n, f);
        }
        first = false;
    }
    if (o.json)
        printf("]\n");
    return CTL_OK;
}
