// The control message: every request and every reply on the control socket is
// exactly these 256 bytes. Shared by the daemon and vornctl.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#define VORN_MSG_SIZE 256
#define VORN_MSG_REPLY 0x80  // bit 7 of msg_type marks a reply
// Byte 0 of the reply to a type-2 request that was dropped because the
// pending list is full.
#define VORN_MSG_NOT_QUEUED 0xFF

enum vorn_msg_type : uint8_t {
    VORN_MSG_QUERY_NODE = 1,    // reply 0x81 with the node's fields
    VORN_MSG_SET_NODE = 2,      // queued for the dispatcher; reply 0x80
    VORN_MSG_GET_GLOBAL = 3,    // reply: gbl_config in bytes 0-127
    VORN_MSG_SET_LOG_PATH = 4,  // no reply
    VORN_MSG_AGENT = 7,         // Debug Agent line in bytes 1-255; no reply
    VORN_MSG_ARCHIVE = 8,       // zip the directory in mask; no reply
};

// Bits 1-7 of `enable` in a type-2 request ask the node's worker for a new file.
#define VORN_ENABLE_BIT 0x01
#define VORN_NEW_FILE_BITS 0xFE

struct vorn_ctrl_msg {
    uint8_t msg_type;
    uint8_t logid;
    uint8_t enable;
    uint8_t loglevel;
    int32_t
        time;  // little-endian on the wire; the daemon and its clients run on little-endian CPUs
    int32_t size;
    char logname[16];
    char mask[100];
    uint8_t reserved[128];
};

static_assert(std::endian::native == std::endian::little,
              "the message's integers are little-endian");
static_assert(sizeof(vorn_ctrl_msg) == VORN_MSG_SIZE, "control message is 256 bytes");
static_assert(offsetof(vorn_ctrl_msg, logid) == 1);
static_assert(offsetof(vorn_ctrl_msg, enable) == 2);
static_assert(offsetof(vorn_ctrl_msg, loglevel) == 3);
static_assert(offsetof(vorn_ctrl_msg, time) == 4);
static_assert(offsetof(vorn_ctrl_msg, size) == 8);
static_assert(offsetof(vorn_ctrl_msg, logname) == 12);
static_assert(offsetof(vorn_ctrl_msg, mask) == 28);
static_assert(offsetof(vorn_ctrl_msg, reserved) == 128);

// The global settings record, gbl_config. Types 3 and 4 overlay the message
// with it, so its layout is fixed: 128 packed bytes, integers little-endian and
// unaligned.
#define VORN_LOG_PATH_LEN 117  // 116 characters and the terminator

#pragma pack(push, 1)
struct gbl_config_t {
    uint8_t type;  // always 0 in memory; carries the reply flag when sent
    uint8_t enable;
    uint8_t loglevel;
    int32_t time;
    int32_t size;
    char log_path[VORN_LOG_PATH_LEN];
};
#pragma pack(pop)

static_assert(sizeof(gbl_config_t) == 128, "gbl_config is 128 bytes");
static_assert(offsetof(gbl_config_t, type) == 0);
static_assert(offsetof(gbl_config_t, enable) == 1);
static_assert(offsetof(gbl_config_t, loglevel) == 2);
static_assert(offsetof(gbl_config_t, time) == 3);
static_assert(offsetof(gbl_config_t, size) == 7);
static_assert(offsetof(gbl_config_t, log_path) == 11);

// The overlay's field offsets, for code that packs or reads message bytes.
#define VORN_MSG_GBL_ENABLE_OFF offsetof(gbl_config_t, enable)
#define VORN_MSG_GBL_LOGLEVEL_OFF offsetof(gbl_config_t, loglevel)
#define VORN_MSG_GBL_TIME_OFF offsetof(gbl_config_t, time)
#define VORN_MSG_GBL_SIZE_OFF offsetof(gbl_config_t, size)
#define VORN_MSG_GBL_LOG_PATH_OFF offsetof(gbl_config_t, log_path)
#define VORN_MSG_GBL_LOG_PATH_LEN VORN_LOG_PATH_LEN
static_assert(sizeof(gbl_config_t) <= VORN_MSG_SIZE, "gbl_config fits in a control message");

// Type 7 carries the agent line from byte 1 to the end.
#define VORN_MSG_AGENT_TEXT_OFF 1

// Small packing helpers shared by the daemon and its clients: text fields are
// zero-padded on the way out and always terminated on the way in, because a
// peer may fill a field to its last byte.

// Zeroes msg and sets its type.
inline void vorn_msg_init(vorn_ctrl_msg *msg, uint8_t type) {
    memset(msg, 0, sizeof *msg);
    msg->msg_type = type;
}

// Copies text into a field of n bytes: at most n - 1 characters, the rest zero.
inline void vorn_msg_put_text(char *field, size_t n, const char *text) {
    memset(field, 0, n);
    if (text != nullptr && n > 0)
        memcpy(field, text, strnlen(text, n - 1));
}

// Copies a received field of n bytes into out (n + 1 bytes), terminated.
inline void vorn_msg_get_text(char *out, const void *field, size_t n) {
    size_t len = strnlen(static_cast<const char *>(field), n);
    memcpy(out, field, len);
    out[len] = '\0';
}

// Little-endian 32-bit integers at any offset (the overlay of types 3 and 4
// places them unaligned).
inline int32_t vorn_msg_get_i32(const void *msg, size_t off) {
    const auto *b = static_cast<const uint8_t *>(msg) + off;
    return static_cast<int32_t>(static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                                static_cast<uint32_t>(b[2]) << 16 |
                                static_cast<uint32_t>(b[3]) << 24);
}

inline void vorn_msg_put_i32(void *msg, size_t off, int32_t value) {
    auto *b = static_cast<uint8_t *>(msg) + off;
    auto v = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; i++)
        b[i] = static_cast<uint8_t>(v >> (8 * i));
}
