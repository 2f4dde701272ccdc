// vornctl tail: the last lines of a node's current file and, with -f, what
// follows, across roll-overs: the writer's naming rule tells which file comes
// next, like tail -F but without losing the end of the file being closed.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "platform/io.h"
#include "tools/vornctl/node_files.h"
#include "tools/vornctl/vornctl.h"

namespace {

constexpr int kStepMs = 100;
// Without a view of the daemon's open files, a file that a newer one follows
// counts as finished this long after the newer one appeared.
constexpr long long kFinishGraceMs = 1000;

// Offset at which the last n lines of fd (size bytes) begin.
uint64_t last_lines_start(int fd, uint64_t size, int n) {
    if (n <= 0)
        return size;
    char buf[8192];
    int newlines = 0;
    for (uint64_t pos = size; pos > 0;) {
        size_t chunk = static_cast<size_t>(std::min<uint64_t>(sizeof buf, pos));
        pos -= chunk;
        if (pread(fd, buf, chunk, static_cast<off_t>(pos)) != static_cast<ssize_t>(chunk))
            return 0;
        for (size_t i = chunk; i-- > 0;) {
            // The newline that ends the last line does not start one.
            if (buf[i] == '\n' && pos + i + 1 != size && ++newlines == n)
                return pos + i + 1;
        }
    }
    return 0;
}

class follower {
  public:
    follower(const ctl_options &o, node_place place, pid_t daemon)
        : o_(o), place_(std::move(place)), daemon_(daemon) {}

    int run(const std::string &name) {
        if (!start())
            return ctl_fail(CTL_NO_REPLY, "no log file of %s in %s yet", name.c_str(),
                            place_.host_dir.c_str());
        if (!drain())
            return CTL_OK;
        // --timeout ends the following (a capture of so many seconds).
        int limit = o_.timeout_sec;
        long long deadline = limit > 0 ? ctl_now_ms() + limit * 1000LL : -1;
        while (o_.follow && (deadline < 0 || ctl_now_ms() < deadline)) {
            if (fd_.valid() || open_first()) {
                if (!drain())
                    return CTL_OK;  // nobody reads our output any more
                if (move_on())
                    continue;
            }
            usleep(kStepMs * 1000);
        }
        return CTL_OK;
    }

  private:
    // Opens the current file at its last lines. False when the node has no
    // file; with -f the first one is then awaited from its start.
    bool start() {
        for (int tries = 0; tries < 3; tries++) {
            std::vector<node_file> files = ctl_scan_files(place_);
            const node_file *cur = ctl_current_file(files);
            if (cur == nullptr)
                return o_.follow;
            if (open(*cur)) {
                struct stat st;
                uint64_t size = fstat(fd_.get(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
                offset_ = last_lines_start(fd_.get(), size, o_.lines);
                return true;
            }
        }
        return o_.follow;
    }

    // The node had no file at all: every file now there is new, so the
    // oldest is where its output begins.
    bool open_first() {
        std::vector<node_file> files = ctl_scan_files(place_);
        return !files.empty() && open(files.front());
    }

    bool open(const node_file &f) {
        unique_fd fd(::open(place_.host(f.name).c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (!fd.valid() || fstat(fd.get(), &st) != 0)
            return false;
        fd_ = std::move(fd);
        file_ = f;
        file_.dev = st.st_dev;
        file_.ino = st.st_ino;
        offset_ = 0;
        next_seen_ms_ = -1;
        return true;
    }

    // Copies what the file holds past offset_ to stdout; false when stdout is gone.
    bool drain() {
        if (!fd_.valid())
            return true;
        char buf[65536];
        for (;;) {
            ssize_t n = pread(fd_.get(), buf, sizeof buf, static_cast<off_t>(offset_));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return true;
            if (write_all(STDOUT_FILENO, buf, static_cast<size_t>(n)) < 0)
                return false;
            offset_ += static_cast<uint64_t>(n);
        }
    }

    // The daemon is done with our file: its roll-over renamed it (after
    // closing it), or the daemon no longer holds it open.
    bool finished() {
        struct stat st;
        if (stat(place_.host(file_.name).c_str(), &st) != 0 || st.st_ino != file_.ino ||
            st.st_dev != file_.dev)
            return true;
        if (std::optional<open_set> open = ctl_open_files(daemon_))
            return open->count({file_.dev, file_.ino}) == 0;
        return ctl_now_ms() - next_seen_ms_ >= kFinishGraceMs;
    }

    // Moves to the file opened after ours once ours is finished and read to
    // its end; true when it moved.
    bool move_on() {
        std::vector<node_file> files = ctl_scan_files(place_);
        auto next = std::find_if(files.begin(), files.end(), [&](const node_file &f) {
            return vorn_log_name_before(file_.parsed, f.parsed);
        });
        if (next == files.end())
            return false;
        if (next_seen_ms_ < 0)
            next_seen_ms_ = ctl_now_ms();
        if (!finished() || !drain())
            return false;
        // A file renamed or pruned meanwhile is looked for again at the next step.
        if (!open(*next))
            return false;
        if (isatty(STDERR_FILENO))
            fprintf(stderr, "vornctl: now following %s\n", place_.rel(next->name).c_str());
        return true;
    }

    const ctl_options &o_;
    node_place place_;
    pid_t daemon_;
    unique_fd fd_;
    node_file file_;
    uint64_t offset_ = 0;
    long long next_seen_ms_ = -1;
};

}  // namespace

int cmd_tail(const ctl_options &o) {
    if (o.args.size() != 2)
        return ctl_fail(CTL_USAGE, "usage: vornctl tail NAME [-f] [-n N] (see --help)");
    const std::string &name = o.args[1];
    ctl_global g;
    std::string why;
    if (int rc = ctl_query_global(o, &g, &why))
        return ctl_fail(rc, "%s", why.c_str());
    std::optional<vorn_config_row> row = ctl_config_row(name);
    if (!row)
        return ctl_fail(CTL_NO_REPLY, "unknown node %s (not in the working configuration)",
                        name.c_str());
    if (!ctl_captures(*row))
        return ctl_fail(CTL_NO_REPLY, "%s writes no rotated log files", name.c_str());
    follower f(o, ctl_node_place(o, g.log_path, row->log_filepath), g.daemon_pid);
    return f.run(name);
}
