#include "tools/vornctl/node_files.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "core/node.h"
#include "platform/io.h"

std::string node_place::rel(const std::string &name) const {
    return rel_dir.empty() ? name : rel_dir + "/" + name;
}

node_place ctl_node_place(const ctl_options &o, const std::string &log_root,
                          const std::string &log_filepath) {
    // As the writer builds it: "<log root>/<log_filepath>.<time>".
    std::string full = ctl_clean_path(log_root + "/" + log_filepath);
    size_t slash = full.rfind('/');
    node_place p;
    p.prefix = full.substr(slash + 1);
    p.host_dir = ctl_host_path(o, full.substr(0, slash));
    std::string rel = ctl_clean_path("/" + log_filepath);
    rel = rel.substr(0, rel.rfind('/'));
    p.rel_dir = rel.empty() ? "" : rel.substr(1);
    return p;
}

bool ctl_captures(const vorn_config_row &row) {
    return !row.log_provider.empty() && !row.log_filepath.empty() &&
           (row.logtype & VORN_LOGTYPE_DUMP) == 0;
}

std::optional<vorn_config_row> ctl_config_row(const std::string &name) {
    std::string cut = name.substr(0, kCtlNameMax);
    for (vorn_config_row &row : vorn_config_rows(VORN_WORK_CONF)) {
        if (row.logname == cut)
            return std::move(row);
    }
    return std::nullopt;
}

std::vector<node_file> ctl_scan_files(const node_place &place) {
    std::vector<node_file> files;
    unique_dir d(opendir(place.host_dir.c_str()));
    if (!d)
        return files;
    while (struct dirent *e = readdir(d.get())) {
        node_file f;
        struct stat st;
        if (!vorn_log_name_parse(e->d_name, place.prefix, &f.parsed) ||
            fstatat(dirfd(d.get()), e->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode))
            continue;
        f.name = e->d_name;
        f.size = static_cast<uint64_t>(st.st_size);
        f.mtime = st.st_mtim;
        f.dev = st.st_dev;
        f.ino = st.st_ino;
        files.push_back(std::move(f));
    }
    std::sort(files.begin(), files.end(), [](const node_file &a, const node_file &b) {
        return a.name < b.name;  // the writer's names sort in opening order
    });
    return files;
}

const node_file *ctl_current_file(const std::vector<node_file> &files) {
    for (auto it = files.rbegin(); it != files.rend(); ++it) {
        if (it->parsed.rolled.empty())
            return &*it;
    }
    return nullptr;
}

std::optional<open_set> ctl_open_files(pid_t pid) {
    if (pid <= 0)
        return std::nullopt;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    unique_dir d(opendir(dir.c_str()));
    if (!d)
        return std::nullopt;
    open_set out;
    while (struct dirent *e = readdir(d.get())) {
        struct stat st;
        // stat follows the descriptor's link to the open file itself.
        if (e->d_name[0] != '.' && fstatat(dirfd(d.get()), e->d_name, &st, 0) == 0 &&
            S_ISREG(st.st_mode))
            out.emplace(st.st_dev, st.st_ino);
    }
    return out;
}

std::string ctl_human_bytes(uint64_t n) {
    static const char *const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    if (n < 1024)
        return std::to_string(n) + " B";
    double v = static_cast<double>(n) / 1024;
    size_t u = 0;
    while (v >= 1024 && u + 1 < std::size(kUnits)) {
        v /= 1024;
        u++;
    }
    char out[32];
    snprintf(out, sizeof out, v < 10 ? "%.1f %s" : "%.0f %s", v, kUnits[u]);
    return out;
}

std::string ctl_human_age(long long seconds) {
    if (seconds < 120)
        return std::to_string(seconds) + " s";
    if (seconds < 2 * 3600)
        return std::to_string(seconds / 60) + " min";
    if (seconds < 2 * 86400)
        return std::to_string(seconds / 3600) + " h";
    return std::to_string(seconds / 86400) + " d";
}

long long ctl_age_of(const struct timespec &t) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return std::max(0LL, static_cast<long long>(now.tv_sec - t.tv_sec));
}
