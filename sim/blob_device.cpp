#include "sim/blob_device.h"

#include <poll.h>

#include <cstring>

void BlobDevice::set(std::string content) {
    std::lock_guard<std::mutex> lock(mu_);
    content_ = std::move(content);
    changed_locked();
}

uint64_t BlobDevice::size() {
    std::lock_guard<std::mutex> lock(mu_);
    return content_.size();
}

ssize_t BlobDevice::read(SimOpen &, char *buf, size_t len, off_t off) {
    std::lock_guard<std::mutex> lock(mu_);
    if (off < 0 || static_cast<uint64_t>(off) >= content_.size())
        return 0;
    size_t n = std::min(len, content_.size() - static_cast<size_t>(off));
    memcpy(buf, content_.data() + off, n);
    return static_cast<ssize_t>(n);
}

unsigned BlobDevice::events_locked(const SimOpen &) {
    return POLLIN | POLLRDNORM;
}

void trace_bytes(char *buf, size_t len, uint64_t offset) {
    for (size_t i = 0; i < len; i++) {
        uint64_t at = offset + i;
        uint64_t frame = at / 16;
        unsigned k = static_cast<unsigned>(at % 16);
        char c;
        if (k < 4)
            c = "QDSS"[k];
        else if (k < 12)
            c = static_cast<char>(frame >> (8 * (k - 4)));
        else
            c = static_cast<char>(0xA0 + k);
        buf[i] = c;
    }
}

std::string trace_bytes(size_t len) {
    std::string out(len, '\0');
    trace_bytes(out.data(), len, 0);
    return out;
}
