// The QDSS trace device: streams synthetic trace at a set rate (nothing while
// the rate is 0; reads block until data is due). An overflow injection makes
// the next read fail with EIO once, as the byte counter does when the trace
// buffer wrapped before it was read.
#pragma once

#include <chrono>

#include "sim/sim_device.h"

class TraceDevice : public SimDevice {
  public:
    using SimDevice::SimDevice;
    void set_rate(uint64_t bytes_per_s);
    void overflow();
    uint64_t streamed();  // bytes handed out so far

    ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) override;

  protected:
    unsigned events_locked(const SimOpen &open) override;

  private:
    uint64_t due_locked();

    using clock = std::chrono::steady_clock;
    uint64_t rate_ = 0;
    clock::time_point since_{};
    uint64_t due_before_ = 0;  // bytes that came due before the last rate change
    uint64_t sent_ = 0;
    bool overflow_ = false;
};
