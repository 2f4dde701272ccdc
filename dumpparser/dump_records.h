// Records the boot loader and the kernel leave in a DDR dump. They are read
// from the images as bytes and decoded field by field in little-endian order
// (dp_le16/32/64), so that the reader does not depend on the host's layout;
// these structs name the fields and fix their offsets.
#pragma once

#include <cstddef>
#include <cstdint>

// Every memory dump table starts with a header the parser skips.
struct dp_table_header {
    uint8_t reserved[8];
};
static_assert(sizeof(dp_table_header) == 8);

// An entry of a format 1 table (3.4 kernels).
struct dp_table_entry_v1 {
    uint32_t id;
    uint32_t pad;
    uint64_t start;
    uint64_t end;
};
static_assert(sizeof(dp_table_entry_v1) == 24);
static_assert(offsetof(dp_table_entry_v1, id) == 0);
static_assert(offsetof(dp_table_entry_v1, start) == 8);
static_assert(offsetof(dp_table_entry_v1, end) == 16);

// An entry of a format 2 table (newer kernels).
struct dp_table_entry_v2 {
    uint32_t id;
    char name_and_type[36];  // not read
    uint64_t addr;
};
static_assert(sizeof(dp_table_entry_v2) == 48);
static_assert(offsetof(dp_table_entry_v2, id) == 0);
static_assert(offsetof(dp_table_entry_v2, addr) == 40);

// The data record a format 2 entry points at: where a kernel variable lies.
struct dp_data_record {
    uint8_t head[40];  // not read
    uint64_t addr;
    uint64_t len;  // used as 32 bits
    uint8_t tail[8];
};
static_assert(sizeof(dp_data_record) == 64);
static_assert(offsetof(dp_data_record, addr) == 40);
static_assert(offsetof(dp_data_record, len) == 48);

// The header of a record of the kernel's message ring (printk), followed by
// the text; the next record starts at len rounded up to a multiple of 4.
struct dp_printk_header {
    uint64_t ts_nsec;
    uint16_t len;  // header, text and padding; 0 marks the wrap to the buffer start
    uint16_t text_len;
    uint16_t dict_len;  // not read, nor the rest
    uint8_t facility;
    uint8_t flags_level;
};
static_assert(sizeof(dp_printk_header) == 16);
static_assert(offsetof(dp_printk_header, ts_nsec) == 0);
static_assert(offsetof(dp_printk_header, len) == 8);
static_assert(offsetof(dp_printk_header, text_len) == 10);
static_assert(offsetof(dp_printk_header, dict_len) == 12);
