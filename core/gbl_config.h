// The global settings record (its layout, gbl_config_t, is in ctrl_msg.h:
// it travels on the control socket as types 3 and 4).
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "core/ctrl_msg.h"

#define VORN_DEFAULT_LOG_PATH "/sdcard/logs/"

extern gbl_config_t gbl_config;
extern pthread_mutex_t gbl_config_mutex;

// Holds gbl_config_mutex for a scope: every way out of it, early returns
// included, lets the lock go.
class gbl_config_guard {
  public:
    gbl_config_guard() { pthread_mutex_lock(&gbl_config_mutex); }
    ~gbl_config_guard() { pthread_mutex_unlock(&gbl_config_mutex); }
    gbl_config_guard(const gbl_config_guard &) = delete;
    gbl_config_guard &operator=(const gbl_config_guard &) = delete;
};

// Unaligned accessors for the packed integers (read without the lock; callers
// that need consistency hold gbl_config_mutex).
int32_t gbl_config_time();
int32_t gbl_config_size();
