#include "capture/logger_entry.h"

#include <log/event_tag_map.h>
#include <log/log_read.h>
#include <log/logprint.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "platform/log.h"
#include "platform/root.h"

namespace {

constexpr int kHdr = sizeof(vorn_klog_entry);
constexpr size_t kLineHeaderMax = 100;  // 99 characters and the terminator
constexpr int kEventTextMax = 1024;     // rendered event text: 1023 characters

char priority_letter(unsigned prio) {
    static const char letters[] = "??VDIWEFS";
    return prio < 9 ? letters[prio] : '?';
}

// "MM-DD HH:MM:SS" of the entry's seconds, local time.
void format_time(int32_t sec, char *out, size_t size) {
    time_t t = sec;
    struct tm tm;
    if (localtime_r(&t, &tm) == nullptr || strftime(out, size, "%m-%d %H:%M:%S", &tm) == 0)
        snprintf(out, size, "00-00 00:00:00");
}

// Header bytes go straight to the stream: counted, never a roll-over point.
bool write_header(vorn_log_file *file, const char *text, size_t len) {
    size_t n = fwrite(text, 1, len, file->fp);
    file->written += n;
    return n == len;
}

int format_event(vorn_log_file *file, const vorn_klog_entry &hdr, const char *payload,
                 const char *ts, long ms, char *path, vorn_node *node) {
    if (hdr.len < 4)
        return 0;
    // liblog's printer wants its own header in front of the payload.
    std::unique_ptr<char[]> buf(new (std::nothrow) char[sizeof(logger_entry) + hdr.len + 1]);
    if (!buf)
        return 0;
    logger_entry le{};
    le.len = hdr.len;
    le.hdr_size = sizeof(logger_entry);
    le.pid = hdr.pid;
    le.tid = static_cast<uint32_t>(hdr.tid);
    le.sec = static_cast<uint32_t>(hdr.sec);
    le.nsec = static_cast<uint32_t>(hdr.nsec);
    le.lid = LOG_ID_EVENTS;
    memcpy(buf.get(), &le, sizeof le);
    memcpy(buf.get() + sizeof le, payload, hdr.len);
    buf[sizeof le + hdr.len] = 0;

    EventTagMap *map = event_tag_map();
    char text[kEventTextMax + 1];
    AndroidLogEntry entry;
    if (android_log_processBinaryLogBuffer(reinterpret_cast<logger_entry *>(buf.get()), &entry, map,
                                           text, kEventTextMax) < 0) {
        VLOGE("Not a complete event log\n");
        return 0;
    }
    size_t n = std::min(entry.messageLen, static_cast<size_t>(kEventTextMax - 1));
    memmove(text, entry.message, n);
    text[n++] = '\n';

    uint32_t tagnum;
    memcpy(&tagnum, payload, sizeof tagnum);
    size_t tag_len = 0;
    const char *tag = map ? android_lookupEventTag_len(map, &tag_len, tagnum) : nullptr;
    char header[kLineHeaderMax];
    int hl = tag ? snprintf(header, sizeof header, "%s.%03ld: %.*s(%5d): ", ts, ms,
                            static_cast<int>(tag_len), tag, hdr.pid)
                 : snprintf(header, sizeof header, "%s.%03ld: [%d](%5d): ", ts, ms,
                            static_cast<int>(tagnum), hdr.pid);
    hl = std::clamp(hl, 0, static_cast<int>(sizeof header) - 1);
    bool ok = write_header(file, header, static_cast<size_t>(hl));
    int w = write_log_data(text, static_cast<int>(n), file, path, node);
    if (file->fp)
        fflush(file->fp);
    return ok && w == static_cast<int>(n) ? 0 : -1;
}

int format_text(vorn_log_file *file, const vorn_klog_entry &hdr, char *payload, const char *ts,
                long ms, char *path, vorn_node *node) {
    if (hdr.len == 0)
        return 0;
    size_t len = hdr.len;
    unsigned prio = static_cast<unsigned char>(payload[0]);
    const char *tag = "";
    size_t start = 1;
    if (prio != 0) {
        auto *end = static_cast<char *>(memchr(payload + 1, 0, len - 1));
        if (end == nullptr)
            return 0;  // a tag without its end: not an entry
        tag = payload + 1;
        start = static_cast<size_t>(end - payload) + 1;
    }
    size_t last = len - 1;
    payload[last] = 0;
    if (start >= last) {
        fflush(file->fp);
        return 0;
    }

    char header[kLineHeaderMax];
    int hl = snprintf(header, sizeof header, "%s.%03ld: %c/%-8s(%5d): ", ts, ms,
                      priority_letter(prio), tag, hdr.pid);
    hl = std::clamp(hl, 0, static_cast<int>(sizeof header) - 1);

    bool ok = true;
    payload[last] = '\n';  // the last line's end byte becomes its newline
    size_t pos = start;
    while (pos < last) {
        auto *nl = static_cast<char *>(memchr(payload + pos, '\n', last + 1 - pos));
        size_t end = static_cast<size_t>(nl - payload);  // the terminator at last is a '\n'
        ok &= write_header(file, header, static_cast<size_t>(hl));
        int n = static_cast<int>(end - pos + 1);
        ok &= write_log_data(payload + pos, n, file, path, node) == n;
        if (file->fp == nullptr)
            return -1;
        pos = end + 1;
    }
    fflush(file->fp);
    return ok ? 0 : -1;
}

}  // namespace

EventTagMap *event_tag_map() {
    static std::mutex lock;
    static EventTagMap *map = nullptr;
    std::lock_guard<std::mutex> g(lock);
    if (map == nullptr)
        map = android_openEventTagMap(vorn_path(EVENT_TAG_MAP_FILE).c_str());
    return map;
}

int format_logger_entry(vorn_log_file *file, char *entry, int len, char *path, vorn_node *node) {
    if (file == nullptr || file->fp == nullptr || entry == nullptr || node == nullptr)
        return -1;
    vorn_klog_entry hdr{};
    memcpy(&hdr, entry, static_cast<size_t>(std::clamp(len, 0, kHdr)));
    if (len - kHdr != hdr.len) {
        VLOGE("WARNING: read expected: %d,  read actually: %d\n", hdr.len, len - kHdr);
        return 0;
    }
    char ts[32];
    format_time(hdr.sec, ts, sizeof ts);
    long ms = hdr.nsec / 1000000;
    char *payload = entry + kHdr;
    if (strncmp(node->logname, "AdbEvents", 9) == 0)
        return format_event(file, hdr, payload, ts, ms, path, node);
    return format_text(file, hdr, payload, ts, ms, path, node);
}
