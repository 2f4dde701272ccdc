// What vornctl learns of a node from its files under the log root, where
// vornctl runs beside the daemon (adb shell as root on a phone, the device
// root on a host): the node's files by the writer's naming rule, the current
// one, and which of them the daemon holds open.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "capture/log_name.h"
#include "core/config.h"
#include "tools/vornctl/vornctl.h"

// Nothing written for longer than three polls of a capture worker: stalled.
constexpr int kStallSeconds = 9;

// Where a capture node writes: its directory and the prefix of its files.
struct node_place {
    std::string host_dir;  // the directory on this machine
    std::string rel_dir;   // the same, relative to the log root ("" for the root)
    std::string prefix;
    std::string rel(const std::string &name) const;
    std::string host(const std::string &name) const { return host_dir + "/" + name; }
};

// The place of a node writing under log_root (the daemon's device path).
node_place ctl_node_place(const ctl_options &o, const std::string &log_root,
                          const std::string &log_filepath);

// True for a node whose worker writes rotated log files: a provider and a
// file path, and not one of the crash-dump kinds.
bool ctl_captures(const vorn_config_row &row);

// The working configuration's row of a node (name cut as the daemon keeps it).
std::optional<vorn_config_row> ctl_config_row(const std::string &name);

// One file of a node.
struct node_file {
    std::string name;
    vorn_log_name parsed;
    uint64_t size = 0;
    struct timespec mtime = {};
    dev_t dev = 0;
    ino_t ino = 0;
};

// The node's files, oldest first.
std::vector<node_file> ctl_scan_files(const node_place &place);

// The current file: the newest that was not rolled over; null when none.
const node_file *ctl_current_file(const std::vector<node_file> &files);

// Files a process holds open, by device and inode; nothing when its
// descriptors cannot be read (another user's process without root).
using open_set = std::set<std::pair<dev_t, ino_t>>;
std::optional<open_set> ctl_open_files(pid_t pid);

// Sizes and ages as a person reads them: "512 B", "1.2 KiB", "3 s", "4 min".
std::string ctl_human_bytes(uint64_t n);
std::string ctl_human_age(long long seconds);

// Seconds since t on the wall clock (never negative).
long long ctl_age_of(const struct timespec &t);
