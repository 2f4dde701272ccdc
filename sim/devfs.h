// The simulated phone's device file system: one FUSE mount with a flat list
// of devices, served by threads of this process so that reads can block the
// way the drivers' reads do.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "sim/sim_device.h"

struct fuse;

class SimDevFs {
  public:
    SimDevFs() = default;
    ~SimDevFs();  // unmounts
    SimDevFs(const SimDevFs &) = delete;
    SimDevFs &operator=(const SimDevFs &) = delete;

    // Devices are added before the mount.
    template <typename T, typename... Args>
    T *add(Args &&...args) {
        auto dev = std::make_unique<T>(std::forward<Args>(args)...);
        T *raw = dev.get();
        devices_[raw->name()] = std::move(dev);
        return raw;
    }
    SimDevice *find(const std::string &name) const;
    const std::map<std::string, std::unique_ptr<SimDevice>> &devices() const { return devices_; }

    // Mounts on dir and serves it from a thread; false with *err when FUSE
    // cannot mount here (no /dev/fuse, no permission).
    bool mount(const std::string &dir, std::string *err);
    // Wakes blocked readers and unmounts (lazily, so open files do not keep
    // the mount). Safe to call twice.
    void unmount();
    bool mounted() const { return fuse_ != nullptr; }

  private:
    std::map<std::string, std::unique_ptr<SimDevice>> devices_;
    struct fuse *fuse_ = nullptr;
    std::string dir_;
    std::thread loop_;
    std::shared_ptr<std::atomic<bool>> loop_done_;
};

// Whether FUSE mounts can work on this machine; *why says why not.
bool fuse_usable(std::string *why);
