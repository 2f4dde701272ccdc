// The multi-device reader: up to four device nodes waited on together and
// written to one file as they deliver. No pre-log buffer: it waits for the
// log root before it reads anything.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "capture/capture_variants.h"
#include "capture/logger_entry.h"
#include "capture/worker_util.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

constexpr size_t kReadSize = 4096;

struct dev_slot {
    int fd;
    char path[VORN_PROVIDER_NAME_LEN];
};

struct multi_worker {
    vorn_node *node;
    bool entries;  // log type 2: kernel-logger entries, formatted
    const char *provider;
    int slot_count;
    dev_slot slots[VORN_PROVIDER_NAMES];
    vorn_log_file file;
    char path[VORN_PATH_MAX];
    char buf[kReadSize];
};

void close_slots(multi_worker *w) {
    for (int i = 0; i < w->slot_count; i++) {
        if (w->slots[i].fd >= 0)
            close(w->slots[i].fd);
        w->slots[i].fd = -1;
    }
}

// Opens every closed slot; returns the number of open slots.
int open_slots(multi_worker *w) {
    int open_count = 0;
    for (int i = 0; i < w->slot_count; i++) {
        dev_slot &s = w->slots[i];
        if (s.fd < 0) {
            s.fd = open(vorn_path(s.path).c_str(), O_RDONLY | O_CLOEXEC);
            if (s.fd < 0)
                VLOGE("Failed to open the device node: %s\n", s.path);
        }
        open_count += s.fd >= 0;
    }
    return open_count;
}

int write_chunk(multi_worker *w, int len) {
    if (w->entries)
        return format_logger_entry(&w->file, w->buf, len, w->path, w->node) == 0 ? 0 : -1;
    int n = write_log_data(w->buf, len, &w->file, w->path, w->node);
    if (w->file.fp)
        fflush(w->file.fp);
    return n == len ? 0 : -1;
}

// Reads one readable slot; false when the slot or the file failed.
bool read_slot(multi_worker *w, dev_slot &s) {
    ssize_t n = read(s.fd, w->buf, sizeof w->buf);
    if (n < 0) {
        if (errno == EINTR || errno == EAGAIN)
            return true;
        VLOGE("%s: Failed to read from dev node: %s\n", strerror(errno), w->provider);
        close(s.fd);
        s.fd = -1;
        return false;
    }
    if (n == 0)
        return true;
    serve_new_file_request(w->node, &w->file, w->path);
    if (w->file.fp == nullptr)
        return false;
    if (write_chunk(w, static_cast<int>(n)) != 0) {
        VLOGE("Failed to write out to log file\n");
        close_log_file(&w->file);
        return false;
    }
    return true;
}

// Waits on the open slots (never a closed one) until something fails or the
// node has a pending change.
void read_slots(multi_worker *w) {
    for (;;) {
        pollfd fds[VORN_PROVIDER_NAMES];
        dev_slot *slot_of[VORN_PROVIDER_NAMES];
        nfds_t nfds = 0;
        for (int i = 0; i < w->slot_count; i++) {
            if (w->slots[i].fd >= 0) {
                fds[nfds] = {w->slots[i].fd, POLLIN, 0};
                slot_of[nfds++] = &w->slots[i];
            }
        }
        if (nfds == 0)
            return;
        int ready = poll(fds, nfds, -1);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        bool failed = false;
        for (nfds_t i = 0; i < nfds; i++) {
            if (fds[i].revents == 0)
                continue;
            if (!read_slot(w, *slot_of[i]))
                failed = true;
        }
        vorn_node_guard g(w->node);
        if (failed || w->node->pending_change)
            return;
    }
}

}  // namespace

void capture_multi_devnode(vorn_node *node) {
    auto *w = new multi_worker{};  // lives as long as the thread: for ever
    w->node = node;
    w->entries = (node->logtype & VORN_LOGTYPE_TYPE_MASK) == VORN_LOGTYPE_ANDROID_LOG;
    char names[VORN_PROVIDER_NAMES][VORN_PROVIDER_NAME_LEN];
    {
        vorn_node_guard g(node);
        node->worker_thread = static_cast<uint64_t>(pthread_self());
        w->provider = node->log_provider;
        w->slot_count = split_provider(node->log_provider, false, names);
    }
    for (int i = 0; i < w->slot_count; i++) {
        w->slots[i].fd = -1;
        memcpy(w->slots[i].path, names[i], sizeof names[i]);
    }
    install_selfsig_handler();
    char root[VORN_LOG_PATH_LEN];
    copy_log_root(root);
    wait_log_dir(root, 0);

    bool sleep_first = true;
    for (;;) {
        if (sleep_first)
            sleep(VORN_POLL_SECONDS);
        sleep_first = true;
        idle_look look = look_at_idle_node(node, nullptr);
        if (look != idle_look::start) {
            if (look == idle_look::tear_down) {
                close_slots(w);
                close_log_file(&w->file);
            }
            continue;
        }

        int open_count = open_slots(w);
        if (w->file.fp == nullptr)
            open_log_file(node, &w->file, w->path);
        // Nothing to wait on, or nowhere to write: back to the idle poll.
        if (w->file.fp == nullptr || open_count == 0)
            continue;
        read_slots(w);
        sleep_first = false;  // look at the node again at once
    }
}
