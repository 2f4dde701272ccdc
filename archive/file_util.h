// File helpers of the archive: every path is a device path, resolved under
// the root where it meets the system.
#pragma once

#include <cstdint>

// Deletes the tree at path. Entries whose names begin with "." are left, so a
// directory holding them stays too.
void remove_tree(const char *path);

// 1 for a directory, 0 for anything else (a symbolic link included), -1 when
// the path cannot be examined.
int is_directory(const char *path);

// Size in bytes, 0 on error.
uint64_t file_size(const char *path);

// Entries are written without zip64, so neither the stored nor the deflated
// size of a file may reach 4 GiB. Returns 0 when size fits; otherwise logs
// and returns -1.
int check_entry_size(const char *path, uint64_t size);
