// Shared set-up of the QDSS tests: one simulated device root for the whole
// binary (the pipelines' threads never end, so it outlives every test), node
// records and pipeline states that are never freed, and FIFOs standing in for
// the trace device.
#pragma once

#include <cstdint>
#include <string>

#include "core/node.h"
#include "qdss/qdss.h"
#include "tests/support/temp_root.h"

TempRoot &qdss_root();

// Points gbl_config at a log root of the test's own ("/<tag>/logs/") and
// returns the device path of the node directory dir under it.
std::string qdss_log_dir(const std::string &tag, const std::string &dir);

// A QDSS node record (disabled, mask "/data/qdss.mask"), kept for the process
// lifetime.
vorn_node *qdss_node(const char *provider, const char *filepath, int32_t size = 0);
// Sets enable and the pending-change flag under the node's lock, as the
// dispatcher does.
void qdss_switch(vorn_node *node, bool enable);
// A fresh pipeline state, kept for the process lifetime.
qdss_state *qdss_new_state();

// A FIFO at a device path, held open for reading and writing by the test so
// that the reader never sees its end. Returns the descriptor.
int qdss_fifo(const std::string &device_path);

// Bytes of the given size in a pattern that shows a lost, repeated or moved
// block (each 8-byte word holds its own offset plus seed).
std::string qdss_pattern(size_t size, uint64_t seed = 0);
// All files of a device directory concatenated in name order.
std::string qdss_files(const std::string &device_dir);
