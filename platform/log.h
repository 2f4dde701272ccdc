// Diagnostics of the daemon. Every message goes through liblog into the system
// log buffer; on a Linux host a logger installed by vorn_log_init() prints each
// message on stderr in logcat's threadtime layout.
#pragma once

#include <android/log.h>

#include <cstddef>

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

// Keeps the host logger's lines of this thread, from its construction on, and
// writes them to stderr in one go when it goes out of scope: the same lines,
// stamped when they were logged, at the cost of one system call instead of
// one each. Lines that do not fit are written after those kept. Only for
// short stretches of work (one control request): nothing shows until the
// end. On Android, where liblog hands every message to logd, it does nothing.
class vorn_log_batch {
  public:
    vorn_log_batch();
    ~vorn_log_batch();
    vorn_log_batch(const vorn_log_batch &) = delete;
    vorn_log_batch &operator=(const vorn_log_batch &) = delete;

    // Appends len bytes of formatted lines; false when they do not fit (what
    // was kept is written first, then the caller writes them itself).
    bool keep(const char *text, size_t len);

  private:
    void write_out();

    vorn_log_batch *outer_;
    size_t len_ = 0;
    char buf_[4096];
};

// Formats one threadtime line ("MM-DD HH:MM:SS.mmm  PID  TID P TAG     : msg\n")
// into out; returns the length written (always terminated, cut to out_len - 1).
int vorn_log_format_line(char *out, int out_len, int prio, const char *tag, const char *message);
