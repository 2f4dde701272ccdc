#include "sim/kgsl_stamp.h"

#include <poll.h>

#include <cstring>
#include <string>

void KgslStamp::set(int stamp) {
    std::lock_guard<std::mutex> lock(mu_);
    stamp_ = stamp;
    generation_++;
    changed_locked();
}

int KgslStamp::get() {
    std::lock_guard<std::mutex> lock(mu_);
    return stamp_;
}

void KgslStamp::opened(SimOpen &open) {
    std::lock_guard<std::mutex> lock(mu_);
    open.seen = generation_;
}

ssize_t KgslStamp::read(SimOpen &open, char *buf, size_t len, off_t off) {
    std::lock_guard<std::mutex> lock(mu_);
    std::string text = std::to_string(stamp_) + "\n";
    open.seen = generation_;
    if (off < 0 || static_cast<size_t>(off) >= text.size())
        return 0;
    size_t n = std::min(len, text.size() - static_cast<size_t>(off));
    memcpy(buf, text.data() + off, n);
    return static_cast<ssize_t>(n);
}

unsigned KgslStamp::events_locked(const SimOpen &open) {
    unsigned ev = POLLIN | POLLRDNORM;
    if (open.seen != generation_)
        ev |= POLLPRI | POLLERR;
    return ev;
}
