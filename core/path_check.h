// Checks of paths that arrive in requests: nothing a client names may lead
// the daemon outside the log root.
#pragma once

#include <string>

// True for a log path a client may set: absolute, without a ".." component,
// and not the file system root itself.
bool vorn_log_path_acceptable(const char *path);

// Resolves the device path path (symbolic links, "." and "..") and checks that
// it names a directory strictly inside the device directory dir (resolved the
// same way). On success returns 0 with the resolved device path in *out;
// otherwise -1. A relative path never passes. On a host both are resolved
// under the root, and a path that leaves the root does not pass either.
int vorn_resolve_dir_inside(const char *path, const char *dir, std::string *out);

// True when name is usable as one path component: not empty, no "/", and
// not "." or "..".
bool vorn_plain_name(const char *name);
