// The device root. On a device it is empty and every path is used as written;
// on a host (vornd --root DIR) every absolute path that meets the system is
// resolved under DIR. What the daemon stores and reports stays a device path:
// only the system call, or the shell command line built for it, sees the
// resolved path.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Sets the root once, before any thread starts. A trailing "/" is dropped;
// nullptr or "" means no root.
void vorn_set_root(const char *dir);

// The root without a trailing "/", or "" when none is set.
const char *vorn_root();

// Resolves a device path: an absolute path is placed under the root, a
// relative one is returned unchanged.
std::string vorn_path(std::string_view device_path);

// The same into a fixed buffer; returns 0, or -1 (out holding "") when the
// result does not fit.
int vorn_path_buf(const char *device_path, char *out, size_t out_len);
