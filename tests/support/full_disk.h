// Full disks for tests. FileSizeLimit caps the size of every file this
// process writes (RLIMIT_FSIZE with SIGXFSZ ignored): a write past it fails
// with EFBIG, as on a full disk; for code that runs on the test's own thread.
// SmallDisk mounts a small tmpfs over a directory (as root), so that worker
// threads and the children they start run out of space too.
#pragma once

#include <signal.h>
#include <sys/resource.h>

#include <string>

// The limit is lifted when the guard goes.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

  private:
    rlimit old_{};
    sighandler_t old_handler_;
};

// A tmpfs of size bytes ("32k": mount's notation) over host directory dir,
// made first; detached when the guard goes.
class SmallDisk {
  public:
    SmallDisk(const std::string &dir, const char *size);
    ~SmallDisk();
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    // False when no tmpfs could be mounted here; error() says why.
    bool ok() const { return mounted_; }
    const std::string &error() const { return error_; }
    // Space returns (or shrinks): the same file system with a new size.
    bool resize(const char *size);

  private:
    std::string dir_;
    std::string error_;
    bool mounted_ = false;
};
