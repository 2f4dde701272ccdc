// Owners of descriptors, directory and stdio streams, and the I/O loops every
// layer shares: whole writes across EINTR and short writes, reads across
// EINTR, and file sizes.
#pragma once

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

// An owned file descriptor; -1 when empty.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd &&o) noexcept : fd_(o.release()) {}
    unique_fd &operator=(unique_fd &&o) noexcept {
        if (this != &o)
            reset(o.release());
        return *this;
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

struct dir_closer {
    void operator()(DIR *d) const {
        if (d != nullptr)
            closedir(d);
    }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

struct file_closer {
    void operator()(FILE *f) const {
        if (f != nullptr)
            fclose(f);
    }
};
using unique_file = std::unique_ptr<FILE, file_closer>;

struct free_deleter {
    void operator()(void *p) const { free(p); }
};
// A malloc'ed object or text (strdup, libc and C library results).
template <typename T>
using unique_malloc = std::unique_ptr<T, free_deleter>;

// Writes all len bytes, going on after EINTR and short writes. Returns len,
// or -1 with errno set by the failing write (a write of 0 bytes counts as a
// failure); *done, when given, holds the bytes written either way.
ssize_t write_all(int fd, const void *buf, size_t len, size_t *done = nullptr);

// One read(2) that is retried while it fails with EINTR.
ssize_t read_retry(int fd, void *buf, size_t len);

// Reads until len bytes or end of file, going on after EINTR. Returns the
// bytes read, or -1 on an error.
ssize_t read_full(int fd, void *buf, size_t len);

// Size in bytes of the file at a device path (resolved under the root), or 0
// when it cannot be examined; *ok, when given, tells the two apart.
uint64_t file_size(const char *device_path, bool *ok = nullptr);
