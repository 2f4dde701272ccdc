#include "sim/ramdump_device.h"

#include <poll.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kPeriod = 256;  // the pattern repeats every 256 bytes

unsigned seed_of(const std::string &subsys) {
    unsigned seed = 0;
    for (char c : subsys)
        seed = seed * 31 + static_cast<unsigned char>(c);
    return seed;
}

void fill(unsigned seed, bool elf, uint64_t off, char *buf, size_t len) {
    // Byte i is (i * 7 + seed) mod 256: two periods, copied from any phase.
    char period[2 * kPeriod];
    for (size_t i = 0; i < sizeof period; i++)
        period[i] = static_cast<char>((i * 7 + seed) & 0xff);
    for (size_t done = 0; done < len;) {
        size_t n = std::min(len - done, kPeriod);
        memcpy(buf + done, period + (off + done) % kPeriod, n);
        done += n;
    }
    // A header that never spells ELF unless asked to.
    static const char kElf[] =
        "\x7f"
        "ELF\x02\x01\x01";
    static const char kRaw[] = "RDMP\x01\x00\x00";
    static_assert(sizeof kElf == sizeof kRaw);
    const char *head = elf ? kElf : kRaw;
    for (uint64_t i = off; i < sizeof kElf - 1 && i < off + len; i++)
        buf[i - off] = head[i];
}

}  // namespace

void RamdumpDevice::inject(const std::string &subsys, uint64_t size, bool elf) {
    std::lock_guard<std::mutex> lock(mu_);
    dumps_.push_back({seed_of(subsys), size, elf});
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
    const Dump &dump = dumps_.front();
    if (pos_ >= dump.size) {
        // End of this dump: the next read waits for another crash.
        dumps_.pop_front();
        pos_ = 0;
        changed_locked();
        return 0;
    }
    size_t n = static_cast<size_t>(std::min<uint64_t>(len, dump.size - pos_));
    fill(dump.seed, dump.elf, pos_, buf, n);
    pos_ += n;
    return static_cast<ssize_t>(n);
}

unsigned RamdumpDevice::events_locked(const SimOpen &) {
    return dumps_.empty() ? 0 : POLLIN | POLLRDNORM;
}

std::string ramdump_bytes(const std::string &subsys, size_t size, bool elf) {
    std::string out(size, '\0');
    fill(seed_of(subsys), elf, 0, out.data(), size);
    return out;
}
