#include "sim/logger_device.h"

#include <poll.h>

#include <cstring>

namespace {

void put32(std::string &out, uint32_t v) {
    for (int i = 0; i < 4; i++)
        out.push_back(static_cast<char>(v >> (8 * i)));
}

}  // namespace

std::string logger_entry(int prio, std::string_view tag, std::string_view msg, int32_t pid,
                         int32_t tid, int32_t sec, int32_t nsec) {
    std::string payload;
    payload.push_back(static_cast<char>(prio));
    payload.append(tag);
    payload.push_back('\0');
    payload.append(msg);
    payload.push_back('\0');
    // The driver caps a payload at 4076 bytes (the entry at 4 KiB).
    if (payload.size() > 4076) {
        payload.resize(4076);
        payload.back() = '\0';
    }
    std::string out;
    out.push_back(static_cast<char>(payload.size() & 0xff));
    out.push_back(static_cast<char>(payload.size() >> 8));
    out.append(2, '\0');
    put32(out, static_cast<uint32_t>(pid));
    put32(out, static_cast<uint32_t>(tid));
    put32(out, static_cast<uint32_t>(sec));
    put32(out, static_cast<uint32_t>(nsec));
    return out + payload;
}

void LoggerDevice::append(std::string entry) {
    std::lock_guard<std::mutex> lock(mu_);
    entries_.push_back(std::move(entry));
    if (entries_.size() > kKeep) {
        entries_.pop_front();
        first_++;
    }
    changed_locked();
}

ssize_t LoggerDevice::read(SimOpen &open, char *buf, size_t len, off_t) {
    std::unique_lock<std::mutex> lock(mu_);
    if (!wait_locked(lock, [&] { return open.cursor < first_ + entries_.size(); }))
        return -EINTR;
    if (open.cursor < first_)
        open.cursor = first_;  // overwritten while the reader slept
    const std::string &e = entries_[open.cursor - first_];
    if (len < e.size())
        return -EINVAL;
    memcpy(buf, e.data(), e.size());
    open.cursor++;
    return static_cast<ssize_t>(e.size());
}

unsigned LoggerDevice::events_locked(const SimOpen &open) {
    return open.cursor < first_ + entries_.size() ? POLLIN | POLLRDNORM : 0;
}
