#include "platform/logd_reader.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>

#ifndef __ANDROID__
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "platform/log.h"
#include "platform/root.h"
#endif

namespace {

// Offsets of the wire header (little-endian, as every logd header version
// lays it out); lid is the last field a reader needs, uid is optional.
constexpr size_t kLenOff = 0;
constexpr size_t kHdrSizeOff = 2;
constexpr size_t kPidOff = 4;
constexpr size_t kTidOff = 8;
constexpr size_t kSecOff = 12;
constexpr size_t kNsecOff = 16;
constexpr size_t kLidOff = 20;
constexpr size_t kUidOff = 24;
constexpr size_t kMinHdr = kLidOff + 4;

// logd and liblog share the header layout: a record decoded into liblog's own
// header keeps every field at the offset it had on the wire.
static_assert(offsetof(logger_entry, len) == kLenOff);
static_assert(offsetof(logger_entry, hdr_size) == kHdrSizeOff);
static_assert(offsetof(logger_entry, pid) == kPidOff);
static_assert(offsetof(logger_entry, tid) == kTidOff);
static_assert(offsetof(logger_entry, sec) == kSecOff);
static_assert(offsetof(logger_entry, nsec) == kNsecOff);
static_assert(offsetof(logger_entry, lid) == kLidOff);
static_assert(offsetof(logger_entry, uid) == kUidOff);
static_assert(sizeof(logger_entry) == kUidOff + 4);

template <typename T>
T load(const unsigned char *p, size_t off) {
    T v;
    memcpy(&v, p + off, sizeof v);
    return v;
}

}  // namespace

int vorn_logdr_decode(const void *rec, size_t n, log_msg *out) {
    const auto *p = static_cast<const unsigned char *>(rec);
    if (p == nullptr || out == nullptr || n < kMinHdr)
        return -1;
    size_t len = load<uint16_t>(p, kLenOff);
    size_t hdr = load<uint16_t>(p, kHdrSizeOff);
    if (hdr < kMinHdr || hdr > n || n - hdr != len)
        return -1;
    // The payload must fit behind liblog's header with room for a zero byte.
    if (sizeof(logger_entry) + len > LOGGER_ENTRY_MAX_LEN)
        return -1;
    logger_entry &e = out->entry;
    e.len = static_cast<uint16_t>(len);
    e.hdr_size = sizeof(logger_entry);
    e.pid = load<int32_t>(p, kPidOff);
    e.tid = load<uint32_t>(p, kTidOff);
    e.sec = load<uint32_t>(p, kSecOff);
    e.nsec = load<uint32_t>(p, kNsecOff);
    e.lid = load<uint32_t>(p, kLidOff);
    e.uid = hdr >= kUidOff + 4 ? load<uint32_t>(p, kUidOff) : 0;
    memcpy(out->buf + sizeof(logger_entry), p + hdr, len);
    out->buf[sizeof(logger_entry) + len] = 0;
    return static_cast<int>(sizeof(logger_entry) + len);
}

#ifdef __ANDROID__

// On the device the logger list is liblog's own.
vorn_logger_list *vorn_logger_list_alloc(int mode, unsigned int tail, pid_t pid) {
    return reinterpret_cast<vorn_logger_list *>(android_logger_list_alloc(mode, tail, pid));
}

vorn_logger *vorn_logger_open(vorn_logger_list *list, log_id_t id) {
    return reinterpret_cast<vorn_logger *>(
        android_logger_open(reinterpret_cast<logger_list *>(list), id));
}

int vorn_logger_list_read(vorn_logger_list *list, log_msg *msg) {
    return android_logger_list_read(reinterpret_cast<logger_list *>(list), msg);
}

void vorn_logger_list_free(vorn_logger_list *list) {
    android_logger_list_free(reinterpret_cast<logger_list *>(list));
}

#else

struct vorn_logger {
    log_id_t id;
};

// Records are taken from the socket up to this many at a time (one record
// per packet still); reads hand them out one by one.
constexpr int kBatch = 32;

struct vorn_logger_list {
    int mode;
    unsigned int tail;
    pid_t pid;
    unsigned int lids;  // bit per opened buffer
    vorn_logger loggers[LOG_ID_MAX];
    int fd;
    bool lost;  // the server hung up; a new list reconnects
    int count;  // records in rec
    int next;   // the next one to hand out
    mmsghdr hdrs[kBatch];
    iovec iov[kBatch];
    unsigned char rec[kBatch][LOGGER_ENTRY_MAX_LEN + 1];
};

vorn_logger_list *vorn_logger_list_alloc(int mode, unsigned int tail, pid_t pid) {
    auto *list = new (std::nothrow) vorn_logger_list;
    if (list == nullptr)
        return nullptr;
    list->mode = mode;
    list->tail = tail;
    list->pid = pid;
    list->lids = 0;
    list->fd = -1;
    list->lost = false;
    list->count = list->next = 0;
    for (int i = 0; i < kBatch; i++) {
        list->iov[i] = {list->rec[i], sizeof list->rec[i]};
        list->hdrs[i] = {};
        list->hdrs[i].msg_hdr.msg_iov = &list->iov[i];
        list->hdrs[i].msg_hdr.msg_iovlen = 1;
    }
    return list;
}

vorn_logger *vorn_logger_open(vorn_logger_list *list, log_id_t id) {
    if (list == nullptr || static_cast<unsigned>(id) >= LOG_ID_MAX)
        return nullptr;
    list->lids |= 1u << id;
    list->loggers[id].id = id;
    return &list->loggers[id];
}

namespace {

// "stream lids=0,3" (plus the tail and pid filters when given).
int build_command(const vorn_logger_list *list, char *cmd, size_t size) {
    int n = snprintf(cmd, size,
                     "%s lids=", (list->mode & ANDROID_LOG_NONBLOCK) ? "dumpAndClose" : "stream");
    const char *sep = "";
    for (int id = 0; id < LOG_ID_MAX; id++) {
        if (list->lids & (1u << id)) {
            n += snprintf(cmd + n, size - static_cast<size_t>(n), "%s%d", sep, id);
            sep = ",";
        }
    }
    if (list->tail)
        n += snprintf(cmd + n, size - static_cast<size_t>(n), " tail=%u", list->tail);
    if (list->pid)
        n += snprintf(cmd + n, size - static_cast<size_t>(n), " pid=%d", list->pid);
    return n;
}

int logdr_connect(vorn_logger_list *list) {
    std::string path = vorn_path(VORN_LOGDR_SOCKET);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return -ENAMETOOLONG;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        int e = errno;
        close(fd);
        return -e;
    }
    char cmd[128];
    int n = build_command(list, cmd, sizeof cmd);
    if (write(fd, cmd, static_cast<size_t>(n)) != n) {
        int e = errno ? errno : EIO;
        close(fd);
        return -e;
    }
    list->fd = fd;
    return 0;
}

}  // namespace

int vorn_logger_list_read(vorn_logger_list *list, log_msg *msg) {
    if (list == nullptr || msg == nullptr)
        return -EINVAL;
    if (list->lost) {
        errno = ECONNRESET;
        return 0;
    }
    if (list->fd < 0) {
        int ret = logdr_connect(list);
        if (ret < 0)
            return ret;
    }
    for (;;) {
        if (list->next >= list->count) {
            // Blocks for the first record only, then takes what is there.
            int got = recvmmsg(list->fd, list->hdrs, kBatch, MSG_WAITFORONE, nullptr);
            if (got < 0)
                return -errno;
            list->count = got;
            list->next = 0;
        }
        const mmsghdr &h = list->hdrs[list->next];
        const unsigned char *rec = list->rec[list->next];
        list->next++;
        size_t n = h.msg_len;
        if (list->count == 0 || n == 0) {
            close(list->fd);
            list->fd = -1;
            list->lost = true;
            list->count = list->next = 0;
            errno = ECONNRESET;
            return 0;
        }
        // A record larger than any entry came in cut; its header cannot be trusted.
        int ret = (h.msg_hdr.msg_flags & MSG_TRUNC) ? -1 : vorn_logdr_decode(rec, n, msg);
        if (ret < 0) {
            VLOGD("logdr: dropped a malformed record of %zu bytes", n);
            continue;
        }
        if (msg->entry.lid >= LOG_ID_MAX || !(list->lids & (1u << msg->entry.lid)))
            continue;
        return ret;
    }
}

void vorn_logger_list_free(vorn_logger_list *list) {
    if (list == nullptr)
        return;
    if (list->fd >= 0)
        close(list->fd);
    delete list;
}

#endif
