#include "sim/control_device.h"

#include <poll.h>

#include <cstring>

ssize_t ControlDevice::read(SimOpen &, char *buf, size_t len, off_t off) {
    std::string text;
    if (off == 0)
        text = status_();
    std::lock_guard<std::mutex> lock(mu_);
    if (off == 0)
        snapshot_ = std::move(text);
    if (off < 0 || static_cast<size_t>(off) >= snapshot_.size())
        return 0;
    size_t n = std::min(len, snapshot_.size() - static_cast<size_t>(off));
    memcpy(buf, snapshot_.data() + off, n);
    return static_cast<ssize_t>(n);
}

ssize_t ControlDevice::write(const char *buf, size_t len) {
    int rc = run_(std::string_view(buf, len));
    return rc < 0 ? rc : static_cast<ssize_t>(len);
}

unsigned ControlDevice::events_locked(const SimOpen &) {
    return POLLIN | POLLOUT;
}
