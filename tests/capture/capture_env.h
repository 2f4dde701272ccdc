// Shared set-up of the capture tests: one device root for the whole binary
// (worker threads never end, so it must outlive every test), node records that
// are never freed, and helpers to look at log files and children.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "core/node.h"
#include "tests/support/temp_root.h"

TempRoot &capture_root();

// Sets a log root "/<tag>-<n>/logs/" of the test's own and the global size in
// gbl_config; returns the host path of the node directory dir under it.
std::string fresh_log_root(const std::string &tag, const std::string &dir, int32_t global_size = 0);

// A node record bound to its register-table row, kept for the process lifetime.
vorn_node *make_node(const char *provider, const char *filepath, int32_t size);

// The same for a pipe node whose worker is started (it first looks 3 s later).
vorn_node *start_pipe_node(const char *provider, const char *filepath, int32_t size);

// Sets enable and the pending-change flag under the node's lock, as the dispatcher does.
void set_enable(vorn_node *node, bool enable);

// Disables the node and waits until its worker has taken the change up.
bool disable_and_settle(vorn_node *node);

std::vector<std::string> list_dir(const std::string &host_dir);  // sorted names
std::string file_at(const std::string &host_dir, size_t i);      // content of the i-th, or ""

// The number of ".YYYY_MM_DD-HH_MM_SS" time suffixes after prefix, or -1.
int time_suffixes(const std::string &name, const std::string &prefix);

// True when a child of this process has ended and is not yet reaped.
bool has_zombie_child();

template <typename Pred>
bool wait_for(Pred pred, int timeout_ms) {
    for (int waited = 0; waited < timeout_ms && !pred(); waited += 50)
        usleep(50 * 1000);
    return pred();
}
