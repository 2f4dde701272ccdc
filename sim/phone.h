// A running simulated phone: the device file system mounted under
// DIR/sim/dev with each device linked from its device path, the fake logd on
// /dev/socket/logdr and the QDSS QMI services of the modem (2), WCN (3) and
// Venus (6). Injections arrive as text lines written to DIR/sim/dev/control
// (see command()); reading that file gives the phone's state.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/devfs.h"

class FakeLogd;
class FakeQmiService;
class KgslStamp;
class BlobDevice;
class TraceDevice;
class RamdumpDevice;
class LoggerDevice;

// Where a device of the file system appears in the device root, besides the
// ramdump devices ("ramdump_<subsystem>" at "/dev/ramdump_<subsystem>").
struct SimLink {
    const char *device;  // name in the file system
    const char *path;    // device path
};
extern const std::vector<SimLink> kSimLinks;
// The subsystems that can have a ramdump device: a phone has the first N
// (vornsim create --ramdumps N), five unless asked otherwise.
extern const std::vector<std::string> kSimSubsystems;

class SimPhone {
  public:
    explicit SimPhone(std::string root);
    ~SimPhone();  // down()
    SimPhone(const SimPhone &) = delete;
    SimPhone &operator=(const SimPhone &) = delete;

    bool up(std::string *err);
    void down();
    // Runs one injection line; 0 or -errno.
    int command(std::string_view line);
    std::string status() const;

    SimDevFs &fs() { return fs_; }

  private:
    std::string root_;
    SimDevFs fs_;
    std::map<std::string, RamdumpDevice *> ramdumps_;  // by subsystem, those of this phone
    std::map<std::string, LoggerDevice *> loggers_;    // by buffer
    KgslStamp *stamp_ = nullptr;
    BlobDevice *snapshot_ = nullptr;
    TraceDevice *trace_ = nullptr;
    std::unique_ptr<FakeLogd> logd_;
    std::vector<std::unique_ptr<FakeQmiService>> qmi_;
};

// The mount point and control file of a root.
std::string sim_mount_dir(const std::string &root);
std::string sim_control_path(const std::string &root);
// Removes the links into the file system (what up() made, for any number of
// ramdump devices).
void remove_sim_links(const std::string &root);
// The snapshot kgsl holds after hang number n.
std::string gpu_snapshot_bytes(int n);
