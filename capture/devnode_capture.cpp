// The single-device reader: one device node read in blocking mode, kept in a
// pre-log buffer while the log root is not writable yet (external storage not
// mounted), then written to the node's rotated files.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "capture/capture_variants.h"
#include "capture/logger_entry.h"
#include "capture/worker_util.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

constexpr size_t kReadSize = 4096;

struct devnode_worker {
    vorn_node *node;
    bool entries;  // log type 2: kernel-logger entries, formatted
    const char *provider;
    int fd;
    int read_errors;
    vorn_log_file file;
    char path[VORN_PATH_MAX];
    prelog_buf pre;
    char buf[kReadSize];
};

int open_device(devnode_worker *w) {
    w->fd = open(vorn_path(w->provider).c_str(), O_RDONLY | O_CLOEXEC);
    if (w->fd < 0) {
        VLOGE("Failed to open the device node: %s\n", w->provider);
        return -1;
    }
    w->read_errors = 0;
    return 0;
}

void close_device(devnode_worker *w) {
    if (w->fd >= 0)
        close(w->fd);
    w->fd = -1;
}

// Writes one read's worth of data; 0 or -1 when the file is no longer usable.
int write_chunk(devnode_worker *w, char *data, int len) {
    if (w->entries)
        return format_logger_entry(&w->file, data, len, w->path, w->node) == 0 ? 0 : -1;
    int n = write_log_data(data, len, &w->file, w->path, w->node);
    if (w->file.fp)
        fflush(w->file.fp);
    return n == len ? 0 : -1;
}

// The pre-log buffer holds raw reads back to back; kernel-logger entries are
// found again by their headers and formatted one by one.
int write_prelog(devnode_worker *w) {
    if (!w->entries)
        return write_chunk(w, w->pre.data, static_cast<int>(w->pre.len));
    size_t pos = 0;
    while (pos < w->pre.len) {
        size_t left = w->pre.len - pos;
        size_t n = left;
        if (left >= sizeof(vorn_klog_entry)) {
            vorn_klog_entry hdr;
            memcpy(&hdr, w->pre.data + pos, sizeof hdr);
            n = std::min(left, sizeof hdr + hdr.len);
        }
        if (write_chunk(w, w->pre.data + pos, static_cast<int>(n)) != 0)
            return -1;
        pos += n;
    }
    return 0;
}

// A file once the log root is writable (pre-log data first), else the pre-log buffer.
void ensure_output(devnode_worker *w) {
    ensure_prelog_output(
        w->node, &w->file, w->path, &w->pre, w->provider,
        [](void *ctx) { return write_prelog(static_cast<devnode_worker *>(ctx)); }, w);
}

void tear_down(devnode_worker *w) {
    close_device(w);
    close_log_file(&w->file);
    prelog_free(&w->pre);
}

// Reads until the device fails, a write fails or the node is disabled.
void read_device(devnode_worker *w) {
    for (;;) {
        ensure_output(w);
        ssize_t n = read(w->fd, w->buf, sizeof w->buf);
        if (n <= 0) {
            int err = n < 0 ? errno : EIO;  // end of data counts as a failed read
            if (n < 0 && err == EINTR)
                continue;
            if (++w->read_errors >= 3) {
                w->read_errors = 0;
                VLOGE("%s: Failed to read from dev node: %s\n", strerror(err), w->provider);
                close_device(w);
                return;
            }
            continue;
        }
        w->read_errors = 0;
        serve_new_file_request(w->node, &w->file, w->path);
        if (w->file.fp) {
            if (write_chunk(w, w->buf, static_cast<int>(n)) != 0) {
                VLOGE("Failed to write out to log file\n");
                close_device(w);
                close_log_file(&w->file);
                return;
            }
        } else {
            prelog_append(&w->pre, w->buf, static_cast<size_t>(n));
        }

        node_change change = take_node_change(w->node, &w->provider);
        if (change == node_change::none)
            continue;
        if (change == node_change::disabled) {
            tear_down(w);
            return;
        }
        close_device(w);
        close_log_file(&w->file);
        if (w->provider == nullptr) {
            VLOGE("%s: no log_provider\n", "capture_devnode");
            return;
        }
        if (open_device(w) != 0)
            return;
    }
}

}  // namespace

void capture_devnode(vorn_node *node) {
    auto *w = new devnode_worker{};  // lives as long as the thread: for ever
    w->node = node;
    w->fd = -1;
    w->entries = (node->logtype & VORN_LOGTYPE_TYPE_MASK) == VORN_LOGTYPE_ANDROID_LOG;
    {
        vorn_node_guard g(node);
        node->worker_thread = static_cast<uint64_t>(pthread_self());
    }
    install_selfsig_handler();

    for (;;) {
        sleep(VORN_POLL_SECONDS);
        idle_look look = look_at_idle_node(node, &w->provider);
        if (look != idle_look::start) {
            if (look == idle_look::tear_down)
                tear_down(w);
            continue;
        }
        if (w->provider == nullptr) {
            VLOGE("%s: no log_provider\n", "capture_devnode");
            continue;
        }
        if (open_device(w) != 0)
            continue;
        read_device(w);
    }
}
