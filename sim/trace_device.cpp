#include "sim/trace_device.h"

#include <poll.h>

#include "sim/blob_device.h"

namespace {

// What the sink holds before it wraps: older trace that is not read in time
// is lost, not queued for ever.
constexpr uint64_t kBacklog = 4 << 20;

}  // namespace

uint64_t TraceDevice::due_locked() {
    uint64_t due = due_before_;
    if (rate_ > 0) {
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(clock::now() - since_);
        due += static_cast<uint64_t>(us.count()) * rate_ / 1000000;
    }
    if (due > sent_ + kBacklog) {
        // Forget what the sink dropped so the backlog stays bounded.
        uint64_t lost = due - sent_ - kBacklog;
        sent_ += lost;
    }
    return due - sent_;
}

void TraceDevice::set_rate(uint64_t bytes_per_s) {
    std::lock_guard<std::mutex> lock(mu_);
    due_before_ = sent_ + due_locked();
    since_ = clock::now();
    rate_ = bytes_per_s;
    changed_locked();
}

void TraceDevice::overflow() {
    std::lock_guard<std::mutex> lock(mu_);
    overflow_ = true;
    changed_locked();
}

uint64_t TraceDevice::streamed() {
    std::lock_guard<std::mutex> lock(mu_);
    return sent_;
}

ssize_t TraceDevice::read(SimOpen &, char *buf, size_t len, off_t) {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        if (overflow_) {
            overflow_ = false;
            return -EIO;
        }
        uint64_t due = due_locked();
        if (due > 0) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(len, due));
            trace_bytes(buf, n, sent_);
            sent_ += n;
            return static_cast<ssize_t>(n);
        }
        // Sleep about as long as one page takes to come due.
        int ms = rate_ == 0 ? 200 : static_cast<int>(std::min<uint64_t>(200, 4096000 / rate_ + 1));
        if (!nap_locked(lock, ms))
            return -EINTR;
    }
}

unsigned TraceDevice::events_locked(const SimOpen &) {
    return overflow_ || due_locked() > 0 ? POLLIN | POLLRDNORM : 0;
}
