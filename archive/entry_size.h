// Archive entry limits.
#pragma once

#include <cstdint>

// Entries are written without zip64, so neither the stored nor the deflated
// size of a file may reach 4 GiB. Returns 0 when size fits; otherwise logs
// and returns -1.
int check_entry_size(const char *path, uint64_t size);
