#include "platform/io.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/root.h"

ssize_t write_all(int fd, const void *buf, size_t len, size_t *done) {
    const char *p = static_cast<const char *>(buf);
    size_t got = 0;
    ssize_t ret = static_cast<ssize_t>(len);
    while (got < len) {
        ssize_t n = write(fd, p + got, len - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ret = -1;
            break;
        }
        got += static_cast<size_t>(n);
    }
    if (done != nullptr)
        *done = got;
    return ret;
}

ssize_t read_retry(int fd, void *buf, size_t len) {
    ssize_t n;
    do {
        n = read(fd, buf, len);
    } while (n < 0 && errno == EINTR);
    return n;
}

uint64_t file_size(const char *device_path, bool *ok) {
    struct stat st;
    bool good = device_path != nullptr && stat(vorn_path(device_path).c_str(), &st) == 0;
    if (ok != nullptr)
        *ok = good;
    return good ? static_cast<uint64_t>(st.st_size) : 0;
}

ssize_t read_full(int fd, void *buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = read(fd, static_cast<char *>(buf) + got, len - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}
