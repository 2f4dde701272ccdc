#include "capture/worker_util.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/log.h"

void selfsig_handle(int sig) {
    VLOGD("sig =%d", sig);
}

void install_selfsig_handler() {
    struct sigaction sa {};
    sa.sa_handler = selfsig_handle;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: the read must come back with EINTR
    sigaction(SIGUSR1, &sa, nullptr);
}

void serve_new_file_request(vorn_node *node, vorn_log_file *file, char *path) {
    {
        vorn_node_guard g(node);
        if (!node->new_file_request)
            return;
    }
    if (file->fp == nullptr)
        return;
    close_log_file(file);
    do {
        sleep(VORN_POLL_SECONDS);
    } while (open_log_file(node, file, path) != 0);
    file->written = 0;
    vorn_node_guard g(node);
    node->new_file_request = 0;
}

idle_look look_at_idle_node(vorn_node *node, const char **provider) {
    vorn_node_guard g(node);
    if (!node->enable) {
        bool change = node->pending_change;
        node->pending_change = 0;
        return change ? idle_look::tear_down : idle_look::idle;
    }
    node->pending_change = 0;
    if (provider != nullptr)
        *provider = node->log_provider;
    return idle_look::start;
}

node_change take_node_change(vorn_node *node, const char **provider) {
    vorn_node_guard g(node);
    if (!node->pending_change)
        return node_change::none;
    node->pending_change = 0;
    if (!node->enable)
        return node_change::disabled;
    *provider = node->log_provider;
    return node_change::reopen;
}

int split_provider(const char *provider, bool whole_unless_semicolon,
                   char (*names)[VORN_PROVIDER_NAME_LEN]) {
    if (provider == nullptr)
        return 0;
    std::string_view p(provider);
    if (whole_unless_semicolon && p.find(';') == std::string_view::npos) {
        size_t n = std::min(p.size(), static_cast<size_t>(VORN_PROVIDER_NAME_LEN - 1));
        memcpy(names[0], p.data(), n);
        names[0][n] = '\0';
        return 1;
    }
    int count = 0;
    size_t pos = 0;
    while (count < VORN_PROVIDER_NAMES && pos < p.size()) {
        size_t end = p.find_first_of("; ", pos);
        if (end == std::string_view::npos)
            end = p.size();
        size_t n = end - pos;
        if (n >= VORN_PROVIDER_NAME_LEN)
            break;  // an overlong name ends the list; the names before it stay
        if (n > 0) {
            memcpy(names[count], p.data() + pos, n);
            names[count][n] = '\0';
            count++;
        }
        pos = end + 1;
    }
    return count;
}

int prelog_alloc(prelog_buf *buf) {
    buf->len = 0;
    buf->data = static_cast<char *>(malloc(VORN_PRELOG_SIZE));
    return buf->data ? 0 : -1;
}

void prelog_append(prelog_buf *buf, const char *data, size_t len) {
    if (buf->data == nullptr)
        return;
    size_t room = VORN_PRELOG_SIZE - buf->len;
    if (len > room)
        len = room;
    memcpy(buf->data + buf->len, data, len);
    buf->len += len;
}

void prelog_free(prelog_buf *buf) {
    free(buf->data);
    buf->data = nullptr;
    buf->len = 0;
}

void copy_log_root(char *out) {
    {
        gbl_config_guard g;
        memcpy(out, gbl_config.log_path, VORN_LOG_PATH_LEN);
    }
    out[VORN_LOG_PATH_LEN - 1] = '\0';
}

void ensure_prelog_output(vorn_node *node, vorn_log_file *file, char *path, prelog_buf *pre,
                          const char *provider, int (*write_pre)(void *ctx), void *ctx) {
    if (file->fp)
        return;
    char root[VORN_LOG_PATH_LEN];
    copy_log_root(root);
    if (wait_log_dir(root, 1) == 0) {
        if (open_log_file(node, file, path) != 0)
            return;
        if (pre->data) {
            if (write_pre(ctx) != 0) {
                VLOGE("Failed to write out to log file\n");
                close_log_file(file);
            } else {
                VLOGD("Free pre log buf: %s\n", provider);
                prelog_free(pre);
            }
        }
        scan_file_logpath(node->log_filepath, VORN_KEEP_FILES - 1);
    } else if (pre->data == nullptr) {
        VLOGD("Malloc pre log buf: %s.\n", provider);
        prelog_alloc(pre);
    }
}

void prepare_log_root(const vorn_node *node) {
    char root[VORN_LOG_PATH_LEN];
    copy_log_root(root);
    wait_log_dir(root, 0);
    scan_file_logpath(node->log_filepath, VORN_KEEP_FILES - 1);
}
