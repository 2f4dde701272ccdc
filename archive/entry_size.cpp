#include "archive/entry_size.h"

#include "platform/log.h"

int check_entry_size(const char *path, uint64_t size) {
    // Deflate's worst case for incompressible data (zlib's compressBound).
    uint64_t worst = size + (size >> 12) + (size >> 14) + (size >> 25) + 13;
    if (worst < 0xffffffffULL)
        return 0;
    VLOGE("%s: %s is too large for an archive without zip64\n", "vornd", path);
    return -1;
}
