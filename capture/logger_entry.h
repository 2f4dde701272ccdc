// Entries of the old kernel logger devices of the Android log buffers, and
// their formatter into text lines.
#pragma once

#include <cstddef>
#include <cstdint>

#include "capture/log_writer.h"
#include "core/node.h"

// The driver's entry header (little-endian), followed by len payload bytes.
struct vorn_klog_entry {
    uint16_t len;
    uint16_t pad;
    int32_t pid;
    int32_t tid;
    int32_t sec;
    int32_t nsec;
};
static_assert(sizeof(vorn_klog_entry) == 20, "kernel logger header is 20 bytes");
static_assert(offsetof(vorn_klog_entry, len) == 0);
static_assert(offsetof(vorn_klog_entry, pid) == 4);
static_assert(offsetof(vorn_klog_entry, tid) == 8);
static_assert(offsetof(vorn_klog_entry, sec) == 12);
static_assert(offsetof(vorn_klog_entry, nsec) == 16);

// Writes one entry as read (len bytes at entry) as text lines into the node's
// file. Text payloads (priority, tag, message) become one line per message
// line, each with its own header; events payloads (a node named AdbEvents...)
// are rendered by liblog's binary event printer. The entry is modified in
// place. Returns 0, also when the entry is dropped as malformed, or non-zero
// when a write failed.
int format_logger_entry(vorn_log_file *file, char *entry, int len, char *path, vorn_node *node);

// The event tag map of the process: opened at the first use that finds the
// file and kept for good (without one, tags print as numbers). Shared by
// every worker that names event tags.
struct EventTagMap *event_tag_map();
