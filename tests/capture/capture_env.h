// Shared set-up of the capture tests: one device root for the whole binary
// (worker threads never end, so it must outlive every test), node records that
// are never freed, and helpers to look at log files and children.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <string>

#include "capture/capture_variants.h"
#include "core/node.h"
#include "core/node_ops.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

TempRoot &capture_root();

// Sets a log root "/<tag>-<n>/logs/" of the test's own and the global size in
// gbl_config; returns the host path of the node directory dir under it.
std::string fresh_log_root(const std::string &tag, const std::string &dir, int32_t global_size = 0);
// The same without a global size; returns the log root's device path.
std::string device_log_root(const std::string &tag);

// A node record bound to its register-table row, kept for the process lifetime.
vorn_node *make_node(const char *name, uint8_t logtype, const char *provider, const char *filepath,
                     int32_t size = 0);
// An enabled pipe node whose worker is started (it first looks 3 s later).
vorn_node *start_pipe_node(const char *provider, const char *filepath, int32_t size);

// Starts a capture variant on its own thread, which never ends.
template <auto Variant>
void start_variant(vorn_node *node) {
    start_detached_thread(
        [](void *n) -> void * {
            Variant(static_cast<vorn_node *>(n));
            return nullptr;
        },
        node, "vornd_test");
}

// Sets enable (and the mask, when given) and the pending-change flag under
// the node's lock, as the dispatcher does.
void set_enable(vorn_node *node, bool enable, const char *mask = nullptr);
// Disables the node and waits until its worker has taken the change up.
bool disable_and_settle(vorn_node *node);
// Disables the node when the test ends, passed or not, so that its worker
// leaves the next test alone.
struct disable_at_end {
    vorn_node *node;
    ~disable_at_end() { set_enable(node, false); }
};

std::string file_at(const std::string &host_dir, size_t i);  // content of the i-th, or ""
// All files of a device directory concatenated in name order.
std::string read_dir_files(const std::string &dev_dir);
// Waits until they are exactly want.
bool dir_becomes(const std::string &dev_dir, const std::string &want, int timeout_ms = 8000);

// The number of ".YYYY_MM_DD-HH_MM_SS" time suffixes after prefix, or -1.
int time_suffixes(const std::string &name, const std::string &prefix);

// True when a child of this process has ended and is not yet reaped.
bool has_zombie_child();

// A kernel-logger entry as the driver hands it out (pid 1234, 11-14
// 22:13:20.123 UTC): header, then payload. len_field is the payload length
// the header claims.
std::string klog_entry(const std::string &payload, int len_field = -1);
// A text payload: priority, tag, message, each text ended by a zero.
std::string klog_text(char prio, const std::string &tag, const std::string &msg);

// A FIFO at device path dev, held open for reading and writing by the test
// so that it never reports end of data; returns the descriptor.
int make_fifo(const std::string &dev);

// Writes bytes to a device FIFO and waits until the reader has taken them: a
// FIFO keeps no record boundaries, a logger device hands out one entry per read.
bool put(int fd, const std::string &bytes, int timeout_ms = 8000);

// Blocks the log root: its top directory becomes a plain file, so that it can
// be neither written nor created, until unblock_log_root removes the file.
void block_log_root(const std::string &log_root);
void unblock_log_root(const std::string &log_root);

template <typename Pred>
bool wait_for(Pred pred, int timeout_ms) {
    return wait_until(pred, timeout_ms, 50);
}

// True when a thread of this process waits in read(2) on a descriptor other
// than skip_fd that is open on a path containing needle.
bool blocked_reading(const std::string &needle, int skip_fd);
// Mappings of this process of a file whose path contains needle.
size_t mappings_naming(const std::string &needle);
