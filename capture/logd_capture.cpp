#include "capture/logd_capture.h"

#include <log/event_tag_map.h>
#include <log/logprint.h>
#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "capture/capture_variants.h"
#include "capture/logger_entry.h"
#include "capture/worker_util.h"
#include "platform/log.h"
#include "platform/root.h"

int init_log_devices(const char *provider, log_device **head) {
    *head = nullptr;
    char names[VORN_PROVIDER_NAMES][VORN_PROVIDER_NAME_LEN];
    int count = split_provider(provider, true, names);
    log_device **tail = head;
    for (int i = 0; i < count; i++) {
        auto *dev = static_cast<log_device *>(calloc(1, sizeof(log_device)));
        if (dev == nullptr) {
            VLOGE("Failed to malloc log device: %s.\n", strerror(errno));
            free_log_devices(*head);
            *head = nullptr;
            return -1;
        }
        // "/dev/log/main" and "main" name the same buffer.
        const char *slash = strrchr(names[i], '/');
        const char *name = slash ? slash + 1 : names[i];
        size_t n = strnlen(name, sizeof dev->name - 1);
        memcpy(dev->name, name, n);
        dev->name[n] = '\0';
        dev->is_events = strcasecmp(dev->name, "events") == 0;
        dev->first_letter = dev->name[0];
        *tail = dev;
        tail = &dev->next;
    }
    return 0;
}

void free_log_devices(log_device *head) {
    while (head) {
        log_device *next = head->next;
        free(head);
        head = next;
    }
}

namespace {

constexpr int kConvertSize = 1024;  // binary event text
constexpr size_t kLineSize = 512;   // formatted line; longer ones come allocated

struct logd_worker {
    vorn_node *node;
    AndroidLogFormat *format;
    const char *provider;
    log_device *devices;
    vorn_logger_list *list;
    int read_errors;
    vorn_log_file file;
    char path[VORN_PATH_MAX];
    prelog_buf pre;
    log_msg msg;
    char convert[kConvertSize];
    char line[kLineSize];
};

void close_buffers(logd_worker *w) {
    free_log_devices(w->devices);
    w->devices = nullptr;
    if (w->list)
        vorn_logger_list_free(w->list);
    w->list = nullptr;
}

void tear_down(logd_worker *w) {
    close_buffers(w);
    close_log_file(&w->file);
    prelog_free(&w->pre);
}

int open_buffers(logd_worker *w) {
    if (w->provider == nullptr) {
        VLOGE("%s: no log_provider\n", "capture_adb_socket");
        return -1;
    }
    if (init_log_devices(w->provider, &w->devices) != 0) {
        VLOGD("Init devices list failed.\n");
        return -1;
    }
    w->list = vorn_logger_list_alloc(0, 0, 0);
    bool ok = w->list != nullptr;
    for (log_device *d = w->devices; ok && d; d = d->next) {
        d->list = w->list;
        d->handle = vorn_logger_open(w->list, android_name_to_log_id(d->name));
        ok = d->handle != nullptr;
    }
    if (!ok) {
        VLOGE("Failed to open log device: %s\n", w->provider);
        close_buffers(w);
        return -1;
    }
    w->read_errors = 0;
    return 0;
}

void ensure_output(logd_worker *w) {
    auto write_pre = [](void *ctx) {
        auto *lw = static_cast<logd_worker *>(ctx);
        int len = static_cast<int>(lw->pre.len);
        return write_log_data(lw->pre.data, len, &lw->file, lw->path, lw->node) == len ? 0 : -1;
    };
    ensure_prelog_output(w->node, &w->file, w->path, &w->pre, w->provider, write_pre, w);
}

// Some liblog builds (the host's) print every event tag as its number; the
// map knows its name.
void name_event_tag(const EventTagMap *map, const log_msg &msg, AndroidLogEntry *entry) {
    if (map == nullptr || msg.entry.len < sizeof(uint32_t))
        return;
    uint32_t tag;
    memcpy(&tag, msg.buf + msg.entry.hdr_size, sizeof tag);
    size_t len = 0;
    if (const char *name = android_lookupEventTag_len(map, &len, tag)) {
        entry->tag = name;
        entry->tagLen = len;
    }
}

log_device *find_device(logd_worker *w, uint32_t lid) {
    for (log_device *d = w->devices; d; d = d->next) {
        if (d->handle && static_cast<uint32_t>(android_name_to_log_id(d->name)) == lid)
            return d;
    }
    return nullptr;
}

// Converts and writes the entry in w->msg; false when the file failed.
bool write_entry(logd_worker *w) {
    log_device *dev = find_device(w, w->msg.entry.lid);
    if (dev == nullptr)
        return true;  // not a buffer of ours
    AndroidLogEntry entry;
    int ret;
    if (!dev->is_events) {
        ret = android_log_processLogBuffer(&w->msg.entry, &entry);
    } else {
        EventTagMap *map = event_tag_map();
        ret = android_log_processBinaryLogBuffer(&w->msg.entry, &entry, map, w->convert,
                                                 sizeof w->convert);
        if (ret >= 0)
            name_event_tag(map, w->msg, &entry);
    }
    if (ret < 0) {
        VLOGE("android_log_processLogBuffer error: %d.\n", ret);
        return true;
    }
    size_t len = 0;
    char *out = android_log_formatLogLine(w->format, w->line, sizeof w->line, &entry, &len);
    if (out == nullptr) {
        VLOGE("out buffer is null.\n");
        return true;
    }
    bool ok = true;
    if (w->file.fp == nullptr) {
        prelog_append(&w->pre, out, len);
    } else if (write_log_data(out, static_cast<int>(len), &w->file, w->path, w->node) !=
               static_cast<int>(len)) {
        VLOGE("Failed to write out to log file\n");
        ok = false;
    }
    if (out != w->line)
        free(out);
    return ok;
}

// Reads while the buffers are open; returns to the idle poll.
void read_buffers(logd_worker *w) {
    for (;;) {
        ensure_output(w);
        int ret = vorn_logger_list_read(w->list, &w->msg);
        if (ret <= 0) {
            int err = ret < 0 ? -ret : errno;
            if (err == EINTR)
                continue;
            if (++w->read_errors < 3)
                continue;
            w->read_errors = 0;
            VLOGE("%s: Failed to read from dev node: %s\n", strerror(err), w->provider);
            close_buffers(w);
            return;
        }
        w->read_errors = 0;
        serve_new_file_request(w->node, &w->file, w->path);
        if (!write_entry(w)) {
            close_buffers(w);
            close_log_file(&w->file);
            return;
        }

        node_change change = take_node_change(w->node, &w->provider);
        if (change == node_change::none)
            continue;
        if (change == node_change::disabled) {
            tear_down(w);
            return;
        }
        close_buffers(w);
        close_log_file(&w->file);
        if (open_buffers(w) != 0)
            return;
    }
}

}  // namespace

void capture_logd(vorn_node *node) {
    auto *w = new logd_worker{};  // lives as long as the thread: for ever
    w->node = node;
    w->format = android_log_format_new();
    android_log_setPrintFormat(w->format, FORMAT_TIME);
    {
        vorn_node_guard g(node);
        node->worker_thread = static_cast<uint64_t>(pthread_self());
    }
    install_selfsig_handler();
    prepare_log_root(node);

    for (;;) {
        sleep(VORN_POLL_SECONDS);
        idle_look look = look_at_idle_node(node, &w->provider);
        if (look != idle_look::start) {
            if (look == idle_look::tear_down)
                tear_down(w);
            continue;
        }
        if (open_buffers(w) == 0)
            read_buffers(w);
    }
}
