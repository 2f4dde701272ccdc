#include "sim/devfs.h"

#define FUSE_USE_VERSION 312
#include <fcntl.h>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

SimDevFs *self() {
    return static_cast<SimDevFs *>(fuse_get_context()->private_data);
}

// "/name" -> device, or null.
SimDevice *lookup(const char *path) {
    if (path[0] != '/')
        return nullptr;
    return self()->find(path + 1);
}

struct Open {
    SimDevice *dev;
    SimOpen state;
};

Open *open_of(fuse_file_info *fi) {
    return reinterpret_cast<Open *>(fi->fh);
}

// Marks this thread as serving a request for the device's waits.
struct InRequest {
    InRequest() { sim_in_request = true; }
    ~InRequest() { sim_in_request = false; }
};

void *fs_init(fuse_conn_info *, fuse_config *cfg) {
    cfg->direct_io = 1;
    cfg->attr_timeout = 0;
    cfg->entry_timeout = 0;
    cfg->negative_timeout = 0;
    return fuse_get_context()->private_data;
}

int fs_getattr(const char *path, struct stat *st, fuse_file_info *) {
    memset(st, 0, sizeof *st);
    if (strcmp(path, "/") == 0) {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        return 0;
    }
    SimDevice *dev = lookup(path);
    if (dev == nullptr)
        return -ENOENT;
    st->st_mode = S_IFREG | (dev->writable() ? 0664 : 0444);
    st->st_nlink = 1;
    st->st_size = static_cast<off_t>(dev->size());
    return 0;
}

int fs_readdir(const char *path, void *buf, fuse_fill_dir_t fill, off_t, fuse_file_info *,
               fuse_readdir_flags) {
    if (strcmp(path, "/") != 0)
        return -ENOTDIR;
    fill(buf, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buf, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    for (const auto &[name, dev] : self()->devices())
        fill(buf, name.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    return 0;
}

int fs_open(const char *path, fuse_file_info *fi) {
    SimDevice *dev = lookup(path);
    if (dev == nullptr)
        return -ENOENT;
    if ((fi->flags & O_ACCMODE) != O_RDONLY && !dev->writable())
        return -EACCES;
    auto o = std::make_unique<Open>(Open{dev, {}});
    dev->opened(o->state);
    // The kernel's file handle owns it until release.
    fi->fh = reinterpret_cast<uint64_t>(o.release());
    fi->direct_io = 1;
    fi->nonseekable = dev->stream() ? 1 : 0;
    return 0;
}

int fs_read(const char *, char *buf, size_t len, off_t off, fuse_file_info *fi) {
    InRequest in;
    Open *o = open_of(fi);
    return static_cast<int>(o->dev->read(o->state, buf, len, off));
}

int fs_write(const char *, const char *buf, size_t len, off_t, fuse_file_info *fi) {
    return static_cast<int>(open_of(fi)->dev->write(buf, len));
}

int fs_release(const char *, fuse_file_info *fi) {
    std::unique_ptr<Open> owned(open_of(fi));
    return 0;
}

int fs_poll(const char *, fuse_file_info *fi, fuse_pollhandle *ph, unsigned *revents) {
    Open *o = open_of(fi);
    *revents = o->dev->poll(o->state, ph);
    return 0;
}

// chmod (the collector makes the ramdump devices group-writable), truncation
// from shell redirections: accepted and ignored, as device nodes do.
int fs_chmod(const char *path, mode_t, fuse_file_info *) {
    return lookup(path) != nullptr || strcmp(path, "/") == 0 ? 0 : -ENOENT;
}
int fs_truncate(const char *path, off_t, fuse_file_info *) {
    return lookup(path) != nullptr ? 0 : -ENOENT;
}

const fuse_operations kOps = [] {
    fuse_operations ops{};
    ops.init = fs_init;
    ops.getattr = fs_getattr;
    ops.readdir = fs_readdir;
    ops.open = fs_open;
    ops.read = fs_read;
    ops.write = fs_write;
    ops.release = fs_release;
    ops.poll = fs_poll;
    ops.chmod = fs_chmod;
    ops.truncate = fs_truncate;
    return ops;
}();

}  // namespace

SimDevFs::~SimDevFs() {
    unmount();
}

SimDevice *SimDevFs::find(const std::string &name) const {
    auto it = devices_.find(name);
    return it == devices_.end() ? nullptr : it->second.get();
}

bool SimDevFs::mount(const std::string &dir, std::string *err) {
    if (fuse_ != nullptr)
        return true;
    if (!fuse_usable(err))
        return false;
    char arg0[] = "vornsim";
    char *argv[] = {arg0, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, argv);
    struct fuse *f = fuse_new(&args, &kOps, sizeof kOps, this);
    fuse_opt_free_args(&args);  // fuse_new copied what it needs
    if (f == nullptr) {
        *err = "fuse_new failed";
        return false;
    }
    if (fuse_mount(f, dir.c_str()) != 0) {
        fuse_destroy(f);
        *err = "cannot mount FUSE on " + dir;
        return false;
    }
    fuse_ = f;
    dir_ = dir;
    loop_done_ = std::make_shared<std::atomic<bool>>(false);
    loop_ = std::thread([f, done = loop_done_] {
        fuse_loop_config *cfg = fuse_loop_cfg_create();
        // Readers that block (ramdumps, loggers, trace) each hold a thread.
        fuse_loop_cfg_set_max_threads(cfg, 64);
        fuse_loop_cfg_set_idle_threads(cfg, 4);
        fuse_loop_mt(f, cfg);
        fuse_loop_cfg_destroy(cfg);
        *done = true;
    });
    return true;
}

void SimDevFs::unmount() {
    if (fuse_ == nullptr)
        return;
    for (auto &[name, dev] : devices_)
        dev->shut_down();
    fuse_exit(fuse_);
    // Detach the mount ourselves rather than through fuse_unmount, which
    // closes the session's descriptor under the loop's readers; the kernel
    // then ends the connection and the loop returns. Without the privilege
    // to unmount, libfuse's own helper is the way.
    bool detached = umount2(dir_.c_str(), MNT_DETACH) == 0;
    if (!detached)
        fuse_unmount(fuse_);
    // A detached mount ends its connection only when its last open file
    // closes. A client that still holds one (a daemon not yet stopped) must
    // not hang us: leave the loop to end with the process then.
    for (int i = 0; i < 100 && !*loop_done_; i++)
        usleep(20000);
    if (*loop_done_) {
        loop_.join();
        // Once the connection has ended (its descriptor reports an error)
        // fuse_unmount unmounts nothing more and only frees the session's copy
        // of the mount point, which fuse_destroy would leak.
        pollfd p{fuse_session_fd(fuse_get_session(fuse_)), 0, 0};
        if (!detached || (poll(&p, 1, 0) == 1 && (p.revents & POLLERR) != 0))
            fuse_unmount(fuse_);
        fuse_destroy(fuse_);  // closes the session's descriptor
    } else {
        loop_.detach();
    }
    fuse_ = nullptr;
}

bool fuse_usable(std::string *why) {
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        *why = std::string("/dev/fuse: ") + strerror(errno);
        return false;
    }
    return true;
}
