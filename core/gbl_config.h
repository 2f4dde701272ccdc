// The global settings record. It also travels on the control socket (types 3
// and 4), so its layout is fixed: 128 packed bytes, integers little-endian and
// unaligned.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#define VORN_LOG_PATH_LEN 117  // 116 characters and the terminator
#define VORN_DEFAULT_LOG_PATH "/sdcard/logs/"

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
static_assert(offsetof(gbl_config_t, enable) == 1);
static_assert(offsetof(gbl_config_t, loglevel) == 2);
static_assert(offsetof(gbl_config_t, time) == 3);
static_assert(offsetof(gbl_config_t, size) == 7);
static_assert(offsetof(gbl_config_t, log_path) == 11);

extern gbl_config_t gbl_config;
extern pthread_mutex_t gbl_config_mutex;

// Unaligned accessors for the packed integers (read without the lock; callers
// that need consistency hold gbl_config_mutex).
int32_t gbl_config_time();
int32_t gbl_config_size();
