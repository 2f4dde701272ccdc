// Helpers shared by the dump parser's files: little-endian
// fields, path joins and the address-to-image lookup.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>

#include "dumpparser/dp_log.h"
#include "platform/io.h"

// Every message of the dump parser starts with its tag.
#define DP VORN_DP_TAG

inline uint32_t dp_le32(const uint8_t *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t dp_le64(const uint8_t *p) {
    return uint64_t(dp_le32(p)) | uint64_t(dp_le32(p + 4)) << 32;
}
inline uint16_t dp_le16(const uint8_t *p) {
    return uint16_t(p[0] | p[1] << 8);
}

// "dir/name" into out; -1 when it does not fit, so that a cut path never
// names some other file.
int dp_join(char *out, size_t out_len, const char *dir, const char *name);

// Seeks fd to off; -1 (errno set) when off does not fit an off_t.
int dp_seek(int fd, uint64_t off);

// The memory images of one dump: base address and size of DDRCS0, 1, ...
struct dp_segments {
    int count;
    uint64_t *base;
    uint64_t *size;
};

// Index of the first image holding addr and its file offset there; -1 when
// none does.
int dp_locate(const dp_segments &seg, uint64_t addr, uint64_t *off);
