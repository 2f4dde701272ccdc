// Starting capture variants on detached threads from the tests, and the bits
// of a device root that the workers need on a host.
#pragma once

#include <cstdint>
#include <string>

#include "capture/capture_variants.h"
#include "core/node_ops.h"
#include "tests/capture/capture_env.h"

template <void (*Variant)(vorn_node *)>
void *run_variant(void *node) {
    Variant(static_cast<vorn_node *>(node));
    return nullptr;
}

// Starts variant on its own thread, which never ends: node must live for ever.
template <void (*Variant)(vorn_node *)>
void start_variant(vorn_node *node) {
    start_detached_thread(run_variant<Variant>, node, "vornd_test");
}

// A node named name with the given logtype, kept for the process lifetime.
vorn_node *make_capture_node(const char *name, uint8_t logtype, const char *provider,
                             const char *filepath);

// A log root of the test's own in gbl_config (no global size); returns its
// device path ("/<tag>-<n>/logs/").
std::string device_log_root(const std::string &tag);

// Sets enable and the mask, and the pending-change flag, as the dispatcher does.
void set_enable_mask(vorn_node *node, bool on, const char *mask);

// Disables the node when the test ends, passed or not, so that its worker
// leaves the next test alone.
struct disable_at_end {
    vorn_node *node;
    ~disable_at_end() { set_enable(node, false); }
};

// A FIFO at device path dev, held open for reading and writing by the test
// so that it never reports end of data; returns the descriptor.
int make_fifo(const std::string &dev);

// Blocks the log root: its top directory (with what it holds) becomes a plain
// file, so that it can be neither written nor created. unblock_log_root
// removes the file again.
void block_log_root(const std::string &log_root);
void unblock_log_root(const std::string &log_root);

// All files of a device directory concatenated in name order.
std::string read_dir_files(const std::string &dev_dir);
