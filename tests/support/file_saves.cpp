#include "tests/support/file_saves.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

FileSaves::FileSaves(const std::string &dir, const std::string &name)
    : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), name_(name) {
    if (fd_ < 0 || inotify_add_watch(fd_, dir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0)
        ADD_FAILURE() << "inotify on " << dir << ": " << strerror(errno);
}

FileSaves::~FileSaves() {
    if (fd_ >= 0)
        close(fd_);
}

int FileSaves::count() {
    alignas(struct inotify_event) char buf[8192];
    ssize_t n;
    while (fd_ >= 0 && (n = read(fd_, buf, sizeof buf)) > 0) {
        for (char *p = buf; p < buf + n;) {
            auto *ev = reinterpret_cast<struct inotify_event *>(p);
            if (ev->len > 0 && name_ == ev->name)
                count_++;
            p += sizeof(struct inotify_event) + ev->len;
        }
    }
    return count_;
}
