// A kernel logger device (/dev/log/main and friends): every read returns one
// whole entry (20-byte header, then priority, tag and message), blocks while
// the reader has seen every entry, and fails with EINVAL when the buffer is
// too small for the next entry. Each open reads from the oldest entry kept.
#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "sim/sim_device.h"

class LoggerDevice : public SimDevice {
  public:
    using SimDevice::SimDevice;
    void append(std::string entry);

    ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) override;

  protected:
    unsigned events_locked(const SimOpen &open) override;

  private:
    static constexpr size_t kKeep = 1024;  // entries kept for new readers
    std::deque<std::string> entries_;
    uint64_t first_ = 0;  // number of the oldest entry kept
};

// An entry in the kernel logger's layout.
std::string logger_entry(int prio, std::string_view tag, std::string_view msg, int32_t pid,
                         int32_t tid, int32_t sec, int32_t nsec);
