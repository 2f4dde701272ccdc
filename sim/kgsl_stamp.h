// The kgsl snapshot timestamp attribute: decimal text of the last snapshot's
// timestamp. As a sysfs attribute that the driver notifies, poll always
// reports it readable and adds POLLPRI|POLLERR once the value changed after
// this open last read it.
#pragma once

#include "sim/sim_device.h"

class KgslStamp : public SimDevice {
  public:
    using SimDevice::SimDevice;
    void set(int stamp);
    int get();

    bool stream() const override { return false; }
    uint64_t size() override { return 4096; }
    void opened(SimOpen &open) override;
    ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) override;

  protected:
    unsigned events_locked(const SimOpen &open) override;

  private:
    int stamp_ = 0;
    uint64_t generation_ = 0;
};
