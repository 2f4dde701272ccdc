// Diagnostics of the daemon. Every message goes through liblog into the system
// log buffer; on a Linux host a logger installed by vorn_log_init() prints each
// message on stderr in logcat's threadtime layout.
#pragma once

#include <android/log.h>

#define VORN_LOG_TAG "vornd"

#define VLOG(prio, ...) __android_log_buf_print(LOG_ID_SYSTEM, (prio), VORN_LOG_TAG, __VA_ARGS__)
#define VLOGD(...) VLOG(ANDROID_LOG_DEBUG, __VA_ARGS__)
#define VLOGI(...) VLOG(ANDROID_LOG_INFO, __VA_ARGS__)
#define VLOGW(...) VLOG(ANDROID_LOG_WARN, __VA_ARGS__)
#define VLOGE(...) VLOG(ANDROID_LOG_ERROR, __VA_ARGS__)

// Installs the process logger. On Android liblog's own logd logger stays; on a
// host every priority from min_priority up (by default all, debug included) is
// printed on stderr. Idempotent.
void vorn_log_init(int min_priority = ANDROID_LOG_VERBOSE);

// The priority of a logcat letter (V, D, I, W or E; either case), or -1.
int vorn_log_priority_of(const char *letter);

#ifndef __ANDROID__
// The host logger itself, exposed so that a test can restore it after
// installing a capturing logger of its own. Host only: the platform's liblog
// hands loggers a record of another shape, and the device logs to logd.
void vorn_log_stderr_logger(const struct __android_logger_data *data, const char *message);
#endif

// Formats one threadtime line ("MM-DD HH:MM:SS.mmm  PID  TID P TAG     : msg\n")
// into out; returns the length written (always terminated, cut to out_len - 1).
int vorn_log_format_line(char *out, int out_len, int prio, const char *tag, const char *message);
