// The dump parser's diagnostics: the daemon's log, under a tag of its own.
#pragma once

#include "platform/log.h"

#define VORN_DP_TAG "DumpParser"

#define DPLOG(prio, ...) __android_log_buf_print(LOG_ID_SYSTEM, (prio), VORN_DP_TAG, __VA_ARGS__)
#define DPLOGD(...) DPLOG(ANDROID_LOG_DEBUG, __VA_ARGS__)
#define DPLOGI(...) DPLOG(ANDROID_LOG_INFO, __VA_ARGS__)
#define DPLOGE(...) DPLOG(ANDROID_LOG_ERROR, __VA_ARGS__)
