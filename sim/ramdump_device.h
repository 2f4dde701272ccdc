// A subsystem ramdump device: a read blocks until a dump is injected, streams
// it, returns end of file once and then blocks again for the next one. poll
// reports readable only while a dump waits or is half read. Dumps injected
// while one is being read queue behind it. A dump's bytes are made as they
// are read, so a queue of 1 GiB dumps costs no memory.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "sim/sim_device.h"

class RamdumpDevice : public SimDevice {
  public:
    using SimDevice::SimDevice;
    void inject(const std::string &subsys, uint64_t size, bool elf);
    size_t pending();  // dumps not yet read to their end

    ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) override;

  protected:
    unsigned events_locked(const SimOpen &open) override;

  private:
    struct Dump {
        unsigned seed;
        uint64_t size;
        bool elf;
    };
    std::deque<Dump> dumps_;  // front: the one being read
    uint64_t pos_ = 0;
};

// The bytes of an injected dump of size bytes, as a reader gets them: an ELF
// header first when elf, then a pattern that tells the subsystems' dumps apart.
std::string ramdump_bytes(const std::string &subsys, size_t size, bool elf);
