#include "tools/vornctl/change_wait.h"

#include <unistd.h>

#include <cstdio>

namespace {

std::string join(const std::vector<std::string> &items, const char *sep) {
    std::string out;
    for (const std::string &s : items)
        out += (out.empty() ? "" : sep) + s;
    return out;
}

std::string json_list(const std::vector<std::string> &items) {
    std::string out = "[";
    for (const std::string &s : items)
        out += (out.size() > 1 ? "," : "") + ctl_json_string(s);
    return out + "]";
}

}  // namespace

int change_watch::prepare() {
    std::string why;
    if (int rc = ctl_query_global(o_, &global_, &why))
        return ctl_fail(rc, "%s", why.c_str());
    std::optional<vorn_config_row> row = ctl_config_row(before_.name);
    captures_ = row && ctl_captures(*row);
    want_enable_ = cmd_ == "enable" ? 1 : cmd_ == "disable" ? 0 : before_.enable & 1;
    // The daemon only acts on a change of state or mask.
    no_change_ = (cmd_ == "enable" && (before_.enable & 1) && mask_ == before_.mask) ||
                 (cmd_ == "disable" && !(before_.enable & 1));
    if (!captures_)
        return CTL_OK;
    place_ = ctl_node_place(o_, global_.log_path, row->log_filepath);
    std::vector<node_file> files = ctl_scan_files(place_);
    for (const node_file &f : files)
        before_names_.insert(f.name);
    before_open_ = open_names(files, ctl_open_files(global_.daemon_pid));
    return CTL_OK;
}

std::vector<std::string> change_watch::open_names(const std::vector<node_file> &files,
                                                  const std::optional<open_set> &open) const {
    std::vector<std::string> names;
    for (const node_file &f : files) {
        if (open && open->count({f.dev, f.ino}))
            names.push_back(place_.rel(f.name));
    }
    return names;
}

void change_watch::look(seen *s) const {
    vorn_ctrl_msg reply;
    s->replied = ctl_query_node(o_, before_.name, &reply, &s->why) == CTL_OK;
    if (s->replied)
        s->node = ctl_view_of(reply);
    if (!captures_)
        return;
    s->files = ctl_scan_files(place_);
    s->created = nullptr;
    const node_file *cur = ctl_current_file(s->files);
    if (cur != nullptr && before_names_.count(cur->name) == 0)
        s->created = cur;
    std::optional<open_set> open = ctl_open_files(global_.daemon_pid);
    s->open_known = open.has_value();
    s->open = open_names(s->files, open);
}

bool change_watch::done(const seen &s) const {
    bool reply_ok = s.replied && (s.node.enable & 1) == want_enable_ &&
                    (cmd_ != "enable" || s.node.mask == mask_.substr(0, kCtlMaskMax));
    if (!captures_ || no_change_)
        return reply_ok;
    if (cmd_ == "disable")
        return reply_ok && s.open.empty();
    return reply_ok && s.created != nullptr;  // enable and new-file: a file was opened
}

int change_watch::report(const seen &s, double seconds) const {
    std::string file = s.created ? place_.rel(s.created->name) : "";
    if (!s.created && captures_ && want_enable_) {
        if (const node_file *cur = ctl_current_file(s.files))
            file = place_.rel(cur->name);
    }
    std::vector<std::string> closed =
        cmd_ == "enable" || no_change_ ? std::vector<std::string>{} : before_open_;
    if (o_.json) {
        printf("{\"name\":%s,\"change\":%s,\"changed\":%s,\"seconds\":%.1f,\"enabled\":%d,",
               ctl_json_string(before_.name).c_str(), ctl_json_string(cmd_).c_str(),
               no_change_ ? "false" : "true", seconds, s.node.enable & 1);
        printf("\"file\":%s,\"closed\":%s}\n",
               file.empty() ? "null" : ctl_json_string(file).c_str(), json_list(closed).c_str());
        return CTL_OK;
    }
    std::string line = before_.name;
    char after[32];
    snprintf(after, sizeof after, " after %.1f s", seconds);
    if (cmd_ == "new-file") {
        line += captures_ ? ": new file " + file + after : ": new-file queued (no log files here)";
        if (!closed.empty())
            line += " (closed " + join(closed, ", ") + ")";
    } else {
        line += no_change_ ? std::string(" was already ") + (want_enable_ ? "enabled" : "disabled")
                           : std::string(want_enable_ ? " enabled" : " disabled") + after;
        if (!file.empty())
            line += ": writing " + file;
        else if (!closed.empty())
            line += ": closed " + join(closed, ", ");
        if (captures_ && cmd_ == "disable" && !no_change_ && !s.open_known)
            line += " (the daemon's open files cannot be seen from here)";
    }
    printf("%s\n", line.c_str());
    return CTL_OK;
}

int change_watch::fail(const seen &s, int waited) const {
    std::string what = s.replied ? "the daemon reports enabled=" + std::to_string(s.node.enable) +
                                       " mask \"" + s.node.mask + "\""
                                 : "no reply to the query (" + s.why + ")";
    if (captures_ && cmd_ != "disable") {
        std::string dir = place_.rel_dir.empty() ? "the log root" : place_.rel_dir;
        what += "; no new file in " + dir;
        if (const node_file *cur = ctl_current_file(s.files))
            what += " (newest " + place_.rel(cur->name) + ", last write " +
                    ctl_human_age(ctl_age_of(cur->mtime)) + " ago)";
    } else if (captures_ && !s.open.empty()) {
        what += "; the daemon still has " + join(s.open, ", ") + " open";
    }
    return ctl_fail(CTL_NO_REPLY, "%s: %s not seen within %d s: %s", before_.name.c_str(),
                    cmd_.c_str(), waited, what.c_str());
}

int change_watch::wait() {
    int wait_sec = o_.timeout_sec > 0 ? o_.timeout_sec : kChangeWaitSec;
    long long start = ctl_now_ms(), deadline = start + wait_sec * 1000LL;
    if (cmd_ == "new-file" && captures_ && !(before_.enable & 1))
        return ctl_fail(CTL_NO_REPLY,
                        "%s is disabled: the request is queued, but no file opens "
                        "until the node is enabled",
                        before_.name.c_str());
    seen s;
    for (;;) {
        look(&s);
        if (done(s))
            return report(s, static_cast<double>(ctl_now_ms() - start) / 1000);
        if (ctl_now_ms() >= deadline)
            return fail(s, wait_sec);
        usleep(100000);
    }
}
