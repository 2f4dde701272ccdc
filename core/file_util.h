// File helpers shared by the features: the log-root wait, time stamps,
// copies, tree removal and text templating. Paths handed in are device paths,
// resolved under the root where they meet the system.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/io.h"

// Local time stamps of log files and archives.
#define VORN_TIME_FORMAT "%Y_%m_%d-%H_%M_%S"
#define VORN_TREE_PATH_MAX 2048  // paths remove_tree walks

// Returns 0 once dir is writable; tries 0 waits for ever, otherwise gives up
// after that many attempts and returns non-zero.
int wait_log_dir(const char *dir, int tries);

// Creates a resolved directory and its missing parents with mkdir(2), mode
// 0777 less the umask, as mkdir -p does. Returns 0, or -1 with errno set.
int vorn_mkdir_p(const char *host_dir);

// The local time in VORN_TIME_FORMAT into out (len bytes, always terminated).
void vorn_time_stamp(char *out, size_t len);

// Copies src over dest (created with mode 0777 when missing); 0 or -1.
int copy_file(const char *dest, const char *src);

// Deletes the tree at path. Entries whose names begin with "." are left, so a
// directory holding them stays too.
void remove_tree(const char *path);

// 1 for a directory, 0 for anything else (a symbolic link included), -1 when
// the path cannot be examined.
int is_directory(const char *path);

// A new heap copy of text with the first occurrence of token replaced by value
// (a plain copy when token does not occur); null when memory runs out.
char *replace_string(const char *text, const char *token, const char *value);
