#include "sim/ramdump_device.h"

#include <poll.h>

#include <cstring>

void RamdumpDevice::inject(std::string dump) {
    std::lock_guard<std::mutex> lock(mu_);
    dumps_.push_back(std::move(dump));
    changed_locked();
}

size_t RamdumpDevice::pending() {
    std::lock_guard<std::mutex> lock(mu_);
    return dumps_.size();
}

ssize_t RamdumpDevice::read(SimOpen &, char *buf, size_t len, off_t) {
    std::unique_lock<std::mutex> lock(mu_);
    if (!wait_locked(lock, [this] { return !dumps_.empty(); }))
        return -EINTR;
    const std::string &dump = dumps_.front();
    if (pos_ >= dump.size()) {
        // End of this dump: the next read waits for another crash.
        dumps_.pop_front();
        pos_ = 0;
        changed_locked();
        return 0;
    }
    size_t n = std::min(len, dump.size() - pos_);
    memcpy(buf, dump.data() + pos_, n);
    pos_ += n;
    return static_cast<ssize_t>(n);
}

unsigned RamdumpDevice::events_locked(const SimOpen &) {
    return dumps_.empty() ? 0 : POLLIN | POLLRDNORM;
}

std::string ramdump_bytes(const std::string &subsys, size_t size, bool elf) {
    std::string out(size, '\0');
    unsigned seed = 0;
    for (char c : subsys)
        seed = seed * 31 + static_cast<unsigned char>(c);
    for (size_t i = 0; i < size; i++)
        out[i] = static_cast<char>((i * 7 + seed) & 0xff);
    // A header that never spells ELF unless asked to.
    static const char kElf[] =
        "\x7f"
        "ELF\x02\x01\x01";
    static const char kRaw[] = "RDMP\x01\x00\x00";
    const char *head = elf ? kElf : kRaw;
    memcpy(out.data(), head, std::min(size, sizeof kElf - 1));
    return out;
}
