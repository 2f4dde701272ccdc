// A subsystem ramdump device: a read blocks until a dump is injected, streams
// it, returns end of file once and then blocks again for the next one. poll
// reports readable only while a dump waits or is half read. Dumps injected
// while one is being read queue behind it.
#pragma once

#include <deque>
#include <string>

#include "sim/sim_device.h"

class RamdumpDevice : public SimDevice {
  public:
    using SimDevice::SimDevice;
    void inject(std::string dump);
    size_t pending();  // dumps not yet read to their end

    ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) override;

  protected:
    unsigned events_locked(const SimOpen &open) override;

  private:
    std::deque<std::string> dumps_;  // front: the one being read
    size_t pos_ = 0;
};

// The bytes of an injected dump of size bytes: an ELF header first when elf,
// then a pattern that tells the subsystem's dumps apart.
std::string ramdump_bytes(const std::string &subsys, size_t size, bool elf);
