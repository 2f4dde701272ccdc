// Shared set-up of the capture tests: one device root for the whole binary
// (worker threads never end, so the root must outlive every test), node
// records that are never freed, and helpers to look at the log files.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/node.h"
#include "tests/support/temp_root.h"

// The device root shared by every test of the binary.
TempRoot &capture_root();

// A fresh log root "/<tag>-<n>/logs/" (device path, trailing "/") that no other
// test uses; sets it and the global size in gbl_config.
std::string fresh_log_root(const std::string &tag, int32_t global_size = 0);

// A node record bound to its register-table row, kept for the process lifetime.
vorn_node *make_node(const char *name, uint8_t logtype, const char *provider, const char *filepath,
                     int32_t size);

// Sorted names in a host directory (empty when it does not exist).
std::vector<std::string> list_dir(const std::string &host_dir);

// Names with one (".<time>") or two time suffixes after prefix.
bool has_one_suffix(const std::string &name, const std::string &prefix);
bool has_two_suffixes(const std::string &name, const std::string &prefix);

// Sleeps until 100 ms past the start of the next wall-clock second.
void sleep_to_next_second();

// Zombie children of this process.
int zombie_children();

// Waits up to timeout_ms for pred, polling every 50 ms; returns pred().
template <typename Pred>
bool wait_for(Pred pred, int timeout_ms) {
    for (int waited = 0; waited < timeout_ms; waited += 50) {
        if (pred())
            return true;
        usleep(50 * 1000);
    }
    return pred();
}

// A pipe node under the current log root, its worker started (the worker
// first looks at it 3 s later). The node starts enabled when enable is set.
vorn_node *start_pipe_node(const char *name, const char *provider, const char *filepath,
                           int32_t size, bool enable);

// Sets enable and the pending-change flag under the node's lock, as the
// dispatcher does.
void set_enable(vorn_node *node, bool enable);

// Disables the node and waits until its worker has taken the change up (and
// so stopped its command and closed its file); false on time-out.
bool disable_and_settle(vorn_node *node);

// Reads a node field under its lock.
template <typename T>
T locked(vorn_node *node, const T &field) {
    vorn_node_guard g(node);
    return field;
}
