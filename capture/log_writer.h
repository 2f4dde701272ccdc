// The log file writer shared by every worker that writes rotated log files:
// wait for the log root, name and create a node's file, append with roll-over,
// and prune a node's directory to its newest files.
//
// Paths handed in and kept in the path buffer are device paths; the writer
// resolves them under the root (platform/root.h) where they meet the system.
#pragma once

#include <cstdint>
#include <cstdio>

#include "core/file_util.h"
#include "core/node.h"

#define VORN_PATH_MAX 256   // path buffers of the workers
#define VORN_KEEP_FILES 10  // files of a node that survive pruning

// The worker's log file handle: the open stream (null when no file is open)
// and the bytes written to it since it was opened. When a write, a flush or a
// roll-over failed (a full disk, most often) the worker still closes the
// file, but its path stays in resume and the next open appends to that file
// instead of creating an empty one each poll: writing goes on there once
// space returns.
struct vorn_log_file {
    FILE *fp;
    uint64_t written;
    bool write_failed;           // set by the failure, cleared by the close after it
    char resume[VORN_PATH_MAX];  // the open file's device path; after a failed
                                 // close, the file the next open continues
    int64_t linked_checked;      // monotonic second the file was last seen linked
    // The last new file's name without its "_NNNN" (path, node prefix and
    // opening second) and the number it got: the next file of that name
    // takes the following number without a scan of the directory.
    char seq_base[VORN_PATH_MAX];
    int seq_last;
};

// Creates the node's directory and opens a new file "<log root>/<log_filepath>.<time>";
// on success file->fp is set and path (VORN_PATH_MAX bytes) holds its path.
// Returns 0, or -1 with file->fp left null.
int open_log_file(vorn_node *node, vorn_log_file *file, char *path);

// Appends len bytes and rolls the file over once it passes a tenth of the
// node's size budget. Returns len when all went well; anything else means the
// file is no longer usable.
int write_log_data(const char *data, int len, vorn_log_file *file, char *path, vorn_node *node);

// Closes the stream if one is open (the file keeps its name) and clears the
// written count for the next file. Unless the close follows a failed write,
// the next open makes a new file.
void close_log_file(vorn_log_file *file);

// Removes entries of dir whose names begin with prefix so that at most keep
// remain: empty files first (never the newest entry, which may be the file
// just opened), then the oldest; so files with data are never given up for
// empty ones. Returns the number found before removal, or -1.
int rotate_log_files(const char *dir, const char *prefix, int keep);

// rotate_log_files on the directory and prefix of a node's log_filepath.
int scan_file_logpath(const char *log_filepath, int keep);
