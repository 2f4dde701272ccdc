// Pieces shared by the reading capture workers (device-node and logd): the
// idle poll interval, the SIGUSR1 handler installation, the new-file request,
// the provider splitting and the pre-log buffer.
#pragma once

#include <cstddef>

#include "capture/log_writer.h"
#include "core/gbl_config.h"
#include "core/node.h"

#define VORN_POLL_SECONDS 3
#define VORN_PRELOG_SIZE (2 * 1024 * 1024)
#define VORN_PROVIDER_NAMES 4
#define VORN_PROVIDER_NAME_LEN 40  // 39 characters and the terminator

// SIGUSR1 handler of the workers that block in reads: it only logs, so that
// the signal interrupts the blocking call without ending the process.
void selfsig_handle(int sig);

// Installs selfsig_handle for SIGUSR1 without SA_RESTART, so that the signal
// interrupts the worker's blocking read.
void install_selfsig_handler();

// Serves a pending new-file request of the node when a file is open: closes
// the file, then every 3 seconds tries to open a new one until it opens,
// resets the written count and clears the request under the node's lock.
void serve_new_file_request(vorn_node *node, vorn_log_file *file, char *path);

// The idle poll's look at the node (after its sleep), under the node's lock:
// enabled (flag cleared, the provider taken into *provider), disabled with a
// pending change to tear down (flag cleared), or nothing to do.
enum class idle_look { idle, tear_down, start };
idle_look look_at_idle_node(vorn_node *node, const char **provider);

// What a reading worker finds after each entry, under the node's lock: no
// change, a change to disabled, or a change while enabled (the provider is
// taken anew into *provider). The pending-change flag is cleared when set.
enum class node_change { none, disabled, reopen };
node_change take_node_change(vorn_node *node, const char **provider);

// Splits a provider into at most VORN_PROVIDER_NAMES names at every ";" and
// " " (empty names skipped). A name longer than 39 characters ends the list
// there. With whole_unless_semicolon, a provider without ";" is one name (cut
// to 39 characters). Returns the number of names.
int split_provider(const char *provider, bool whole_unless_semicolon,
                   char (*names)[VORN_PROVIDER_NAME_LEN]);

// Text kept while the log root is not writable; cut silently when full.
struct prelog_buf {
    char *data;  // VORN_PRELOG_SIZE bytes, null when none
    size_t len;
};

// 0, or -1 when the memory cannot be had.
int prelog_alloc(prelog_buf *buf);
void prelog_append(prelog_buf *buf, const char *data, size_t len);
void prelog_free(prelog_buf *buf);

// Output of a reader that may start before the log root is writable: while no
// file is open, opens one once the root is writable, writes the pre-log
// buffer into it first (write_pre(ctx) returns 0 on success), frees the
// buffer and prunes the node's old files; while the root is not writable,
// makes sure a pre-log buffer exists.
void ensure_prelog_output(vorn_node *node, vorn_log_file *file, char *path, prelog_buf *pre,
                          const char *provider, int (*write_pre)(void *ctx), void *ctx);

// Copies the log root (gbl_config's log_path, a device path) under
// gbl_config_mutex; out holds VORN_LOG_PATH_LEN bytes.
void copy_log_root(char *out);

// A worker's start: waits for the log root without limit, then prunes the
// node's old files to nine, so that the file it opens first is the tenth.
void prepare_log_root(const vorn_node *node);
