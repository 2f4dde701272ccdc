#include "capture/exec_capture.h"

#include <ctype.h>
#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "capture/capture_variants.h"
#include "capture/log_writer.h"
#include "capture/worker_util.h"
#include "core/command_line.h"
#include "core/gbl_config.h"
#include "core/shell.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

int stop_process(pid_t *slot) {
    if (slot == nullptr || *slot < 1)
        return -1;
    kill(*slot, SIGUSR1);
    kill(*slot, SIGCONT);
    int status;
    // Returns at once for a process that is not our child.
    waitpid(*slot, &status, 0);
    *slot = -1;
    return 0;
}

char *exec_build_command(const char *tmpl, const char *path, const char *mask,
                         const char *mask_link) {
    char *path_replaced = replace_string(tmpl, "#path", path);
    if (path_replaced == nullptr)
        return nullptr;
    VLOGD("path_replaced is %s", path_replaced);
    char *mask_replaced = replace_string(path_replaced, "#mask", mask);
    free(path_replaced);
    if (mask_replaced == nullptr)
        return nullptr;
    VLOGD("mask_replaced is %s", mask_replaced);
    if (mask_link == nullptr)
        return mask_replaced;
    char *link_replaced = replace_string(mask_replaced, "#mask_link", mask_link);
    free(mask_replaced);
    if (link_replaced == nullptr)
        return nullptr;
    VLOGD("mask_link_replaced is %s", link_replaced);
    return link_replaced;
}

int exec_scan_children(const char *proc_dir, pid_t parent, pid_t *children) {
    unique_dir dir(opendir(proc_dir));
    if (!dir)
        return -1;
    int count = 0;
    while (dirent *de = readdir(dir.get())) {
        if (strcmp(de->d_name, "..") == 0 || !isdigit(static_cast<unsigned char>(de->d_name[0])))
            continue;
        std::string status = std::string(proc_dir) + "/" + de->d_name + "/status";
        unique_file f(fopen(status.c_str(), "re"));
        if (!f)
            continue;
        char line[256];
        while (fgets(line, sizeof line, f.get())) {
            if (strncmp(line, "PPid", 4) != 0)
                continue;
            int ppid;
            if (sscanf(line, "%*s %d", &ppid) == 1 && ppid == parent &&
                count < VORN_EXEC_CHILDREN) {
                children[count++] = atoi(de->d_name);
            }
            break;
        }
    }
    children[count] = 0;
    return count;
}

namespace {

struct exec_worker {
    vorn_node *node;
    char tmpl[VORN_EXEC_TEMPLATE_LEN];
    std::string shell;  // "/system/bin/sh" under the root
    std::string proc;   // "/proc" under the root
    pid_t main_child = -1;
    pid_t children[VORN_EXEC_CHILDREN + 1] = {0};
    bool running = false;
};

// Children the shell started before the main child's pid wrapped are not ours
// to stop; the shell itself goes last.
void stop_command(exec_worker *w) {
    for (int i = 0; i <= VORN_EXEC_CHILDREN && w->children[i] != 0; i++) {
        if (w->children[i] > w->main_child) {
            VLOGD("disable %d", w->children[i]);
            stop_process(&w->children[i]);
        }
    }
    w->children[0] = 0;
    stop_process(&w->main_child);
}

void start_command(exec_worker *w, const char *cmd) {
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        vorn_child_dies_with_parent(parent);
        execl(w->shell.c_str(), "sh", "-c", cmd, static_cast<char *>(nullptr));
        VLOGE("Failed to start execl: %d\n", errno);
        _exit(127);
    }
    if (pid < 0) {
        VLOGE("Failed to fork exec process\n");
        return;
    }
    w->main_child = pid;
    VLOGD("pid is %d!\n", pid);
    if (exec_scan_children(w->proc.c_str(), pid, w->children) < 0)
        VLOGE("Cannot open /proc");
    w->running = true;
}

// One cycle; -1 ends the thread (memory ran out building the command line).
int exec_cycle(exec_worker *w) {
    vorn_node *node = w->node;
    pthread_mutex_lock(&node->lock);
    bool change = node->pending_change;
    if (w->running && !change) {
        pthread_mutex_unlock(&node->lock);
        return 0;
    }
    if (!node->enable) {
        if (change) {
            node->pending_change = 0;
            pthread_mutex_unlock(&node->lock);
            if (w->running) {
                stop_command(w);
                w->running = false;
            }
        } else {
            pthread_mutex_unlock(&node->lock);
        }
        return 0;
    }

    unique_malloc<char> log_path;
    {
        gbl_config_guard g;
        const char *filepath = node->log_filepath ? node->log_filepath : "";
        size_t size = strlen(gbl_config.log_path) + strlen(filepath) + 2;
        log_path.reset(static_cast<char *>(malloc(size)));
        if (!log_path) {
            VLOGE("no space for log_path in capture_exec()!");
            pthread_mutex_unlock(&node->lock);
            return -1;
        }
        snprintf(log_path.get(), size, "%s/%s", gbl_config.log_path, filepath);
    }

    char mask[VORN_MASK_LEN];
    snprintf(mask, sizeof mask, "%s", node->mask);
    std::string mask_link;
    bool has_link = node->mask_link != nullptr;
    if (has_link)
        mask_link = node->mask_link;
    node->pending_change = 0;
    pthread_mutex_unlock(&node->lock);

    // The program sees host paths: the output path and any absolute mask
    // path are resolved under the root.
    std::string path = vorn_path(log_path.get());
    log_path.reset();
    // Paths stay one word on the command line; the mask is an option string
    // and goes in as it is, so it may hold no shell syntax (a mask saved by
    // an older daemon is checked here too).
    if (!template_value_allowed(mask)) {
        VLOGE(
            "Refused mask (%s) of %s: only letters, digits, blanks and _-./:,=+@%% may go "
            "into its command\n",
            mask, node->logname);
        return 0;
    }
    char *cmd = exec_build_command(w->tmpl, shell_word(path).c_str(), vorn_path(mask).c_str(),
                                   has_link ? shell_word(vorn_path(mask_link)).c_str() : nullptr);
    if (cmd == nullptr)
        return -1;
    if (w->running)
        stop_command(w);  // a restart: running stays set should the fork fail
    start_command(w, cmd);
    free(cmd);
    return 0;
}

}  // namespace

int capture_exec(vorn_node *node) {
    auto *w = new exec_worker;  // lives as long as the thread
    w->node = node;
    w->shell = vorn_path("/system/bin/sh");
    w->proc = vorn_path("/proc");
    {
        vorn_node_guard g(node);
        node->worker_thread = static_cast<uint64_t>(pthread_self());
        snprintf(w->tmpl, sizeof w->tmpl, "%s", node->log_provider ? node->log_provider : "");
    }
    char root[VORN_LOG_PATH_LEN];
    copy_log_root(root);
    wait_log_dir(root, 0);

    for (;;) {
        if (exec_cycle(w) < 0) {
            delete w;
            return -1;
        }
        sleep(VORN_POLL_SECONDS);
    }
}
