#include "tests/support/full_disk.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

FileSizeLimit::FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &old_);
    old_handler_ = signal(SIGXFSZ, SIG_IGN);
    rlimit lim{bytes, old_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lim);
}

FileSizeLimit::~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, old_handler_);
}

SmallDisk::SmallDisk(const std::string &dir, const char *size) : dir_(dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir_, ec);
    std::string options = std::string("size=") + size;
    mounted_ = mount("tmpfs", dir_.c_str(), "tmpfs", 0, options.c_str()) == 0;
    if (!mounted_)
        error_ = strerror(errno);
}

SmallDisk::~SmallDisk() {
    if (mounted_)
        umount2(dir_.c_str(), MNT_DETACH);
}

bool SmallDisk::resize(const char *size) {
    std::string options = std::string("size=") + size;
    return mounted_ && mount("tmpfs", dir_.c_str(), nullptr, MS_REMOUNT, options.c_str()) == 0;
}
