// Devices and attributes that hold one block of bytes, read from the open's
// offset to end of file: the ETF and ETR trace sinks' data devices and the
// kgsl snapshot dump.
#pragma once

#include <string>

#include "sim/sim_device.h"

class BlobDevice : public SimDevice {
  public:
    BlobDevice(std::string name, std::string content)
        : SimDevice(std::move(name)), content_(std::move(content)) {}
    void set(std::string content);

    bool stream() const override { return false; }
    uint64_t size() override;
    ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) override;

  protected:
    unsigned events_locked(const SimOpen &open) override;

  private:
    std::string content_;
};

// Synthetic trace: 16-byte frames, "QDSS", a frame counter and filler.
void trace_bytes(char *buf, size_t len, uint64_t offset);
std::string trace_bytes(size_t len);
