// The two fire-and-forget requests of vornctl, agent lines and archives: the
// daemon answers neither, so vornctl can watch for their effect instead.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <unzip.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "archive/archive_name.h"
#include "platform/io.h"
#include "tools/vornctl/node_files.h"
#include "tools/vornctl/vornctl.h"

namespace {

constexpr int kAgentWaitSec = 5;
constexpr int kArchiveWaitSec = 60;

// Size of a host file, or -1.
long long host_file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

std::string join_args(const ctl_options &o) {
    std::string line;
    for (size_t i = 1; i < o.args.size(); i++)
        line += (i > 1 ? " " : "") + o.args[i];
    return line;
}

// The next line of path, after byte from, that contains one of the summary
// openings of the Debug Agent; "" when none is there yet.
std::string find_summary(const std::string &path, long long from) {
    std::ifstream in(path, std::ios::binary);
    in.seekg(from);
    for (std::string line; std::getline(in, line);) {
        if (in.eof())
            break;  // a line still being written
        for (const char *key : {"Success to run command: ", "Fail to run command: "}) {
            size_t pos = line.find(key);
            if (pos != std::string::npos)
                return line.substr(pos);
        }
    }
    return "";
}

// Size and modification time of each zip file of dir.
std::map<std::string, std::pair<long long, long long>> zip_files(const std::string &dir) {
    std::map<std::string, std::pair<long long, long long>> out;
    if (unique_dir d{opendir(dir.c_str())}) {
        while (struct dirent *e = readdir(d.get())) {
            std::string name = e->d_name;
            struct stat st;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".zip") == 0 &&
                stat((dir + "/" + name).c_str(), &st) == 0) {
                out[name] = {st.st_size, st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec};
            }
        }
    }
    return out;
}

// Bytes of the regular files under a directory, subdirectories included.
uint64_t tree_size(const std::string &dir, int depth = 0) {
    uint64_t total = 0;
    unique_dir d(opendir(dir.c_str()));
    if (!d || depth > 32)
        return total;
    while (struct dirent *e = readdir(d.get())) {
        struct stat st;
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0 ||
            fstatat(dirfd(d.get()), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISREG(st.st_mode))
            total += static_cast<uint64_t>(st.st_size);
        else if (S_ISDIR(st.st_mode))
            total += tree_size(dir + "/" + e->d_name, depth + 1);
    }
    return total;
}

// The progress line of an archive being written, redrawn in place.
void show_progress(const std::string &dir, long long zip_size, uint64_t source) {
    printf("\rarchiving %s: %s of %s\033[K", dir.c_str(),
           ctl_human_bytes(static_cast<uint64_t>(std::max(zip_size, 0LL))).c_str(),
           ctl_human_bytes(source).c_str());
    fflush(stdout);
}

// The entry count of a complete archive (its central directory written), or -1.
long zip_entries(const std::string &path) {
    unzFile z = unzOpen(path.c_str());
    if (z == nullptr)
        return -1;
    unz_global_info info;
    long n = unzGetGlobalInfo(z, &info) == UNZ_OK ? static_cast<long>(info.number_entry) : -1;
    unzClose(z);
    return n;
}

}  // namespace

int cmd_agent(const ctl_options &o) {
    if (o.args.size() < 2)
        return ctl_fail(CTL_USAGE, "usage: vornctl agent LINE... (see --help)");
    if (o.follow_log != !o.log_file.empty())
        return ctl_fail(CTL_USAGE, "--follow-log and --log FILE go together");
    std::string line = join_args(o);
    if (line.size() > VORN_MSG_SIZE - 2)
        return ctl_fail(CTL_USAGE, "agent line longer than %d characters", VORN_MSG_SIZE - 2);
    vorn_ctrl_msg m;
    vorn_msg_init(&m, VORN_MSG_AGENT);
    memcpy(reinterpret_cast<char *>(&m) + VORN_MSG_AGENT_TEXT_OFF, line.c_str(), line.size());

    long long from = o.follow_log ? host_file_size(o.log_file) : 0;
    if (o.follow_log && from < 0)
        return ctl_fail(CTL_USAGE, "cannot read the log file %s", o.log_file.c_str());
    std::string why;
    int rc = ctl_request(o, m, nullptr, 0, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    if (!o.follow_log) {
        printf(
            "sent \"%s\"; the daemon sends no reply to agent lines (their result is in its "
            "log)\n",
            line.c_str());
        return CTL_OK;
    }
    int wait = o.timeout_sec > 0 ? o.timeout_sec : kAgentWaitSec;
    long long deadline = ctl_now_ms() + wait * 1000LL;
    for (;;) {
        std::string summary = find_summary(o.log_file, from);
        if (!summary.empty()) {
            printf("%s\n", summary.c_str());
            return summary.rfind("Success", 0) == 0 ? CTL_OK : CTL_NO_REPLY;
        }
        if (ctl_now_ms() >= deadline)
            return ctl_fail(CTL_NO_REPLY, "no Debug Agent summary in %s within %d s",
                            o.log_file.c_str(), wait);
        usleep(50000);
    }
}

int cmd_archive(const ctl_options &o) {
    if (o.args.size() != 3)
        return ctl_fail(CTL_USAGE, "usage: vornctl archive LOGNAME DIR (see --help)");
    const std::string &logname = o.args[1], &dir = o.args[2];
    if (dir.size() > kCtlMaskMax)
        return ctl_fail(CTL_USAGE, "directory longer than %d characters", kCtlMaskMax);
    ctl_global g;
    std::string why;
    int rc = ctl_query_global(o, &g, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    std::string name = logname.substr(0, kCtlNameMax);
    // The name the daemon's own naming rule gives the archive.
    std::string device_upload = archive_upload_dir(g.log_path.c_str(), name.c_str());
    std::string upload = ctl_host_path(o, ctl_clean_path(device_upload));
    bool exact;
    std::string stamp = archive_dir_stamp(dir.c_str(), &exact);
    std::string expected =
        ctl_host_path(o, ctl_clean_path(archive_file_name(device_upload, stamp.c_str())));
    std::string expected_name = expected.substr(expected.rfind('/') + 1);
    auto before = zip_files(upload);
    // On a terminal the archive's size grows against the directory's size,
    // taken before the daemon zips it (and may remove it).
    bool progress = o.wait && !o.json && isatty(STDOUT_FILENO);
    uint64_t source = progress ? tree_size(ctl_host_path(o, ctl_clean_path(dir))) : 0;

    vorn_ctrl_msg m;
    vorn_msg_init(&m, VORN_MSG_ARCHIVE);
    vorn_msg_put_text(m.logname, sizeof m.logname, name.c_str());
    vorn_msg_put_text(m.mask, sizeof m.mask, dir.c_str());
    rc = ctl_request(o, m, nullptr, 0, &why);
    if (rc != CTL_OK)
        return ctl_fail(rc, "%s", why.c_str());
    if (!o.wait) {
        if (o.json)
            printf("{\"expected\":%s}\n", ctl_json_string(expected).c_str());
        else
            printf("archive of %s will appear as %s\n", dir.c_str(), expected.c_str());
        return CTL_OK;
    }

    // A new or rewritten archive counts once minizip has closed it: only then
    // does it open with its central directory. When its name is known, only
    // that one counts: other archives may be finishing at the same time.
    int wait = o.timeout_sec > 0 ? o.timeout_sec : kArchiveWaitSec;
    long long deadline = ctl_now_ms() + wait * 1000LL;
    long long written = 0;
    for (;;) {
        if (progress)
            show_progress(dir, written, source);
        for (const auto &[file, stamp] : zip_files(upload)) {
            auto old = before.find(file);
            if ((old != before.end() && old->second == stamp) || (exact && file != expected_name))
                continue;
            std::string path = upload + "/" + file;
            long entries = zip_entries(path);
            written = host_file_size(path);
            if (entries < 0)
                continue;
            if (progress)
                printf("\r\033[K");
            if (o.json) {
                printf("{\"archive\":%s,\"size\":%lld,\"entries\":%ld}\n",
                       ctl_json_string(path).c_str(), host_file_size(path), entries);
            } else {
                printf("%s: %lld bytes, %ld entries\n", path.c_str(), host_file_size(path),
                       entries);
            }
            return CTL_OK;
        }
        if (ctl_now_ms() >= deadline) {
            if (progress)
                printf("\n");
            return ctl_fail(CTL_NO_REPLY, "no archive appeared in %s within %d s", upload.c_str(),
                            wait);
        }
        usleep(100000);
    }
}
