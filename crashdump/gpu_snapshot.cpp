// The "GPU" node: waits in poll on the kgsl snapshot timestamp and copies
// each new hang snapshot into the node's folder.
#include "crashdump/gpu_snapshot.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "capture/log_writer.h"
#include "capture/worker_util.h"
#include "core/file_util.h"
#include "core/shell.h"
#include "crashdump/crashdump.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

std::atomic<int> gpu_dump_switch{1};
int gpu_last_hang_timestamp = 0;

namespace {

// The timestamp attribute's text, or false after its message.
bool read_timestamp(char (&text)[GPU_TIMESTAMP_READ + 1], ssize_t *len) {
    unique_fd fd(open(vorn_path(GPU_TIMESTAMP).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        VLOGE("%s: failed to open %s\n", GPU_TAG, GPU_TIMESTAMP);
        return false;
    }
    memset(text, 0, sizeof text);
    *len = read_retry(fd.get(), text, GPU_TIMESTAMP_READ);
    // An empty attribute holds no timestamp either.
    if (*len <= 0) {
        VLOGE("%s: failed to read %s\n", GPU_TAG, GPU_TIMESTAMP);
        return false;
    }
    return true;
}

// Pruning takes the part of log_filepath after its last "/" as the prefix
// of the node's files; an empty one would match every file of the folder.
bool prunable(const char *log_filepath) {
    size_t len = strlen(log_filepath);
    return len > 0 && log_filepath[len - 1] != '/';
}

void notify(const char *file) {
    const char *dot = strrchr(file, '.');
    std::string name = shell_dquoted(file);
    std::string ext = shell_dquoted(dot != nullptr ? dot + 1 : "");
    const char *fmt = "--ei result 1 --es para \"ZIP GPU %s %s\"";
    // The whole text: the fixed words (35 characters with the quotes and
    // the blanks) and the terminator besides the two names.
    size_t len = strlen(fmt) - 4 + name.size() + ext.size() + 1;
    unique_malloc<char> para(static_cast<char *>(malloc(len)));
    if (!para) {
        VLOGE("OOM: No memory for para string!\n");
        return;
    }
    snprintf(para.get(), len, fmt, name.c_str(), ext.c_str());
    send_broadcast(VORN_BROADCAST_ACTION, para.get());
}

}  // namespace

void gpu_snapshot_copy(const char *log_filepath) {
    const char *filepath = log_filepath != nullptr ? log_filepath : "";
    char text[GPU_TIMESTAMP_READ + 1];
    ssize_t len = 0;
    if (!read_timestamp(text, &len))
        return;
    if (len == GPU_TIMESTAMP_READ) {
        VLOGE("%s: invalid timestamp\n", GPU_TAG);
        text[GPU_TIMESTAMP_READ - 1] = '\0';
    }
    int stamp = atoi(text);
    if (stamp == gpu_last_hang_timestamp)
        return;
    gpu_last_hang_timestamp = stamp;
    VLOGD("%s: hang detected, timestamp is %d", GPU_TAG, stamp);

    char root[VORN_LOG_PATH_LEN];
    copy_log_root(root);
    char folder[GPU_FOLDER_LEN];
    snprintf(folder, sizeof folder, "%s/%s", root, filepath);
    wait_log_dir(folder, 0);
    char local[32];
    vorn_time_stamp(local, sizeof local);
    char file[GPU_FOLDER_LEN + 64];
    snprintf(file, sizeof file, "%s/dump_%d.bin.%s", folder, stamp, local);

    unique_fd dump(open(vorn_path(GPU_DUMP).c_str(), O_RDONLY | O_CLOEXEC));
    if (!dump.valid()) {
        VLOGE("%s: failed to open %s", GPU_TAG, GPU_DUMP);
        return;
    }
    unique_fd out(open(vorn_path(file).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!out.valid()) {
        VLOGE("%s: failed to open %s", GPU_TAG, file);
        return;
    }
    if (prunable(filepath))
        scan_file_logpath(filepath, VORN_KEEP_FILES - 1);

    char buf[1024];
    for (;;) {
        ssize_t n = read_retry(dump.get(), buf, sizeof buf);
        if (n < 0) {
            VLOGE("%s: read snapshot dump error", GPU_TAG);
            return;
        }
        if (n == 0)
            break;
        if (write_all(out.get(), buf, static_cast<size_t>(n)) < 0) {
            // The part written so far is still announced.
            VLOGE("%s: write out snapshot dump error", GPU_TAG);
            break;
        }
    }
    VLOGD("%s: snapshot was dumped to %s", GPU_TAG, file);
    notify(file);
}

int gpu_dump_enable(vorn_node *, const vorn_ctrl_msg *) {
    gpu_dump_switch.store(1);
    return 0;
}

int gpu_dump_disable(vorn_node *, const vorn_ctrl_msg *) {
    gpu_dump_switch.store(0);
    return 0;
}

void *gpu_monitor_thread(void *arg) {
    auto *node = static_cast<vorn_node *>(arg);
    if (node == nullptr) {
        VLOGE("%s: Invalid argument", GPU_TAG);
        return nullptr;
    }
    {
        vorn_node_guard g(node);
        node->worker_thread = static_cast<uint64_t>(pthread_self());
    }
    VLOGD("%s: monitor thread is running ... ", GPU_TAG);
    for (;;) {
        unique_fd fd(open(vorn_path(GPU_TIMESTAMP).c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd.valid()) {
            VLOGE("%s: failed to open %s\n", GPU_TAG, GPU_TIMESTAMP);
            break;
        }
        VLOGE("%s: start to poll ... ", GPU_TAG);
        char arm[GPU_TIMESTAMP_READ];
        // Reading the attribute arms its notification.
        read_retry(fd.get(), arm, sizeof arm);
        pollfd pfd{fd.get(), POLLPRI | POLLERR, 0};
        int r = poll(&pfd, 1, -1);
        fd.reset();
        if (r <= 0)
            continue;
        // The copy may wait for the log root: not under the node's lock.
        bool on;
        const char *filepath;
        {
            vorn_node_guard g(node);
            on = gpu_dump_switch.load() != 0;
            filepath = node->log_filepath;
        }
        if (on)
            gpu_snapshot_copy(filepath);
    }
    // The thread ends: the next enable starts a new one.
    vorn_node_guard g(node);
    node->worker_thread = 0;
    return nullptr;
}
