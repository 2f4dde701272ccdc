// The phone's control file: each write is one injection line, answered with
// its length or the command's error; a read gives the phone's state.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "sim/sim_device.h"

class ControlDevice : public SimDevice {
  public:
    ControlDevice(std::string name, std::function<int(std::string_view)> run,
                  std::function<std::string()> status)
        : SimDevice(std::move(name)), run_(std::move(run)), status_(std::move(status)) {}

    bool stream() const override { return false; }
    bool writable() const override { return true; }
    ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) override;
    ssize_t write(const char *buf, size_t len) override;

  protected:
    unsigned events_locked(const SimOpen &open) override;

  private:
    std::function<int(std::string_view)> run_;
    std::function<std::string()> status_;
    std::string snapshot_;  // the state as the last read from offset 0 saw it
};
