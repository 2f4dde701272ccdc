#include "platform/log.h"
#include "platform/io.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

char priority_letter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        case ANDROID_LOG_SILENT:
            return 'S';
        default:
            return '?';
    }
}

// Lines below this priority are not printed on stderr.
std::atomic<int> g_stderr_min{ANDROID_LOG_VERBOSE};

}  // namespace

namespace {

// The ids in every line cost two system calls a line when asked each time;
// a forked child asks anew (its pid and its one thread's id differ).
int g_pid = 0;
thread_local int t_tid = 0;

void forget_ids() {
    g_pid = 0;
    t_tid = 0;
}

int process_id() {
    static const bool registered = pthread_atfork(nullptr, nullptr, forget_ids) == 0;
    (void)registered;
    if (g_pid == 0)
        g_pid = static_cast<int>(getpid());
    return g_pid;
}

int thread_id() {
    if (t_tid == 0)
        t_tid = static_cast<int>(syscall(SYS_gettid));
    return t_tid;
}

constexpr size_t kTagMax = 64;  // longer tags are cut in the header
constexpr size_t kHeaderMax = 14 + 4 + 2 * 11 + 3 + kTagMax + 2 + 1;

// The header of a threadtime line, "MM-DD HH:MM:SS.mmm  PID   TID P TAG     : ",
// into out (kHeaderMax bytes); returns its length. The date and the ids are
// formatted once per second and thread: a line costs no more than its copy.
size_t format_header(char *out, int prio, const char *tag) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    thread_local time_t date_sec = -1;
    thread_local char date[24];
    thread_local size_t date_len = 0;
    if (tv.tv_sec != date_sec) {
        struct tm tm;
        localtime_r(&tv.tv_sec, &tm);
        int n = snprintf(date, sizeof date, "%02d-%02d %02d:%02d:%02d.", tm.tm_mon + 1, tm.tm_mday,
                         tm.tm_hour, tm.tm_min, tm.tm_sec);
        date_len = n > 0 ? std::min(static_cast<size_t>(n), sizeof date - 1) : 0;
        date_sec = tv.tv_sec;
    }
    thread_local int ids_pid = 0, ids_tid = 0;
    thread_local char ids[32];
    thread_local size_t ids_len = 0;
    int pid = process_id(), tid = thread_id();
    if (pid != ids_pid || tid != ids_tid) {
        int n = snprintf(ids, sizeof ids, " %5d %5d ", pid, tid);
        ids_len = n > 0 ? std::min(static_cast<size_t>(n), sizeof ids - 1) : 0;
        ids_pid = pid;
        ids_tid = tid;
    }
    char *o = out;
    memcpy(o, date, date_len);
    o += date_len;
    int ms = static_cast<int>(tv.tv_usec / 1000);
    *o++ = static_cast<char>('0' + ms / 100);
    *o++ = static_cast<char>('0' + ms / 10 % 10);
    *o++ = static_cast<char>('0' + ms % 10);
    memcpy(o, ids, ids_len);
    o += ids_len;
    *o++ = priority_letter(prio);
    *o++ = ' ';
    size_t tag_len = strnlen(tag ? tag : "", kTagMax);
    memcpy(o, tag ? tag : "", tag_len);
    o += tag_len;
    for (; tag_len < 8; tag_len++)
        *o++ = ' ';
    *o++ = ':';
    *o++ = ' ';
    return static_cast<size_t>(o - out);
}

// One line: the header, len bytes of text and a newline, cut to out_len - 1
// bytes but still ending in a newline; returns its length.
int format_line(char *out, size_t out_len, int prio, const char *tag, const char *text,
                size_t len) {
    if (out_len == 0)
        return 0;
    char header[kHeaderMax];
    size_t n = std::min(format_header(header, prio, tag), out_len - 1);
    memcpy(out, header, n);
    size_t room = out_len - 1 - n;
    size_t take = std::min(len, room > 0 ? room - 1 : 0);
    memcpy(out + n, text, take);
    n += take;
    if (n > 0 && room > 0)
        out[n++] = '\n';
    else if (n > 0)
        out[n - 1] = '\n';
    out[n] = '\0';
    return static_cast<int>(n);
}

}  // namespace

int vorn_log_format_line(char *out, int out_len, int prio, const char *tag, const char *message) {
    if (out_len <= 0)
        return 0;
    const char *text = message ? message : "";
    return format_line(out, static_cast<size_t>(out_len), prio, tag, text, strlen(text));
}

namespace {

// The batch this thread keeps its lines in, if any.
thread_local vorn_log_batch *t_batch = nullptr;

}  // namespace

vorn_log_batch::vorn_log_batch() : outer_(t_batch) {
    // Lines an enclosing batch keeps come before this one's.
    if (outer_ != nullptr)
        outer_->write_out();
    t_batch = this;
}

vorn_log_batch::~vorn_log_batch() {
    write_out();
    t_batch = outer_;
}

bool vorn_log_batch::keep(const char *text, size_t len) {
    if (len > sizeof buf_ - len_) {
        write_out();
        return false;
    }
    memcpy(buf_ + len_, text, len);
    len_ += len;
    return true;
}

void vorn_log_batch::write_out() {
    if (len_ > 0)
        write_all(STDERR_FILENO, buf_, len_);
    len_ = 0;
}

#ifndef __ANDROID__
void vorn_log_stderr_logger(const struct __android_logger_data *data, const char *message) {
    if (data->priority < g_stderr_min.load(std::memory_order_relaxed))
        return;
    // A message may hold several lines (many texts end in "\n"); like logcat,
    // print each non-empty line with its own header.
    const char *p = message ? message : "";
    char line[4096 + 128];
    do {
        const char *nl = strchr(p, '\n');
        size_t len = nl ? static_cast<size_t>(nl - p) : strlen(p);
        if (len > 0 || (nl == nullptr && p == message)) {
            len = std::min(len, static_cast<size_t>(4095));
            int n = format_line(line, sizeof line, data->priority, data->tag, p, len);
            if (t_batch == nullptr || !t_batch->keep(line, static_cast<size_t>(n)))
                write_all(STDERR_FILENO, line, static_cast<size_t>(n));
        }
        p = nl ? nl + 1 : nullptr;
    } while (p && *p);
}
#endif

int vorn_log_priority_of(const char *letter) {
    if (letter == nullptr || letter[0] == '\0' || letter[1] != '\0')
        return -1;
    for (int prio = ANDROID_LOG_VERBOSE; prio <= ANDROID_LOG_ERROR; prio++) {
        if (priority_letter(prio) == toupper(static_cast<unsigned char>(letter[0])))
            return prio;
    }
    return -1;
}

void vorn_log_init(int min_priority) {
    g_stderr_min.store(min_priority, std::memory_order_relaxed);
#ifndef __ANDROID__
    __android_log_set_logger(vorn_log_stderr_logger);
#endif
    // Lines below the level are not even formatted.
    __android_log_set_minimum_priority(min_priority);
}
