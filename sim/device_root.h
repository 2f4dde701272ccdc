// The files of a simulated phone's device root (vornsim create): the
// configuration, properties, sysfs and debugfs trees, recording stand-ins for
// am, mount, stop and start, and the folders the daemon writes into.
#pragma once

#include <string>

struct DeviceRootOptions {
    std::string platform = "msm8916";
    int cpus = 4;
    int ramdumps = 5;  // ramdump devices of the phone (sim/phone.conf)
};

// The Android API level a platform shipped with; logger devices below 20.
int platform_sdk(const std::string &platform);
bool known_platform(const std::string &platform);
// The default configuration for the platform: every row of the register table.
std::string default_config(const DeviceRootOptions &opts);
// Makes the tree under dir (kept files are rewritten). False with *err.
bool create_device_root(const std::string &dir, const DeviceRootOptions &opts, std::string *err);
// The number of ramdump devices the phone of root dir has: what create wrote
// into sim/phone.conf, or the default.
int device_root_ramdumps(const std::string &dir);
