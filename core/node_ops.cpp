#include "core/node_ops.h"

#include <pthread.h>
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>

#include "platform/log.h"

int check_dump_ops(vorn_node *node, const vorn_node_ops *row) {
    if (node == nullptr || row == nullptr)
        return -1;
    if ((node->logtype & VORN_LOGTYPE_DUMP) && row->enable && row->disable && row->work)
        return 0;
    return -1;
}

int check_switch_ops(vorn_node *node, const vorn_node_ops *row) {
    if (node == nullptr || row == nullptr)
        return -1;
    if (row->enable == nullptr || row->disable == nullptr)
        return -1;
    // A switch without provider is fine; one with a provider needs a file path.
    if (node->log_provider == nullptr)
        return 0;
    return node->log_filepath != nullptr ? 0 : -1;
}

int check_capture_ops(vorn_node *node, const vorn_node_ops *row) {
    if (node == nullptr || row == nullptr)
        return -1;
    if (row->enable && row->disable && row->work && node->log_provider && node->log_filepath) {
        return 0;
    }
    return -1;
}

int set_node_state(vorn_node *node, const vorn_ctrl_msg *cmd) {
    if (node == nullptr || cmd == nullptr)
        return -1;
    node->enable = cmd->enable & VORN_ENABLE_BIT;
    memset(node->mask, 0, sizeof(node->mask));
    snprintf(node->mask, sizeof(node->mask), "%.*s", static_cast<int>(sizeof(cmd->mask)),
             cmd->mask);
    return 0;
}

int vorn_node_enable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    if (node == nullptr || node->ops == nullptr)
        return -1;
    VLOGD("%s: enable %s\n", "vorn_node_enable", node->logname);
    return node->ops->enable ? node->ops->enable(node, cmd) : 0;
}

int vorn_node_disable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    if (node == nullptr || node->ops == nullptr)
        return -1;
    VLOGD("%s: disable %s\n", "vorn_node_disable", node->logname);
    return node->ops->disable ? node->ops->disable(node, cmd) : 0;
}

namespace {

// pthread_setname_np takes at most 15 characters and the terminator.
void make_thread_name(char (&out)[16], const char *prefix, const char *name) {
    size_t n = 0;
    for (const char *s : {prefix, name}) {
        while (*s != '\0' && n < sizeof(out) - 1)
            out[n++] = *s++;
    }
    out[n] = '\0';
}

// What a new thread needs to name itself before it runs its routine. Naming
// from the creator raced with a detached thread that had already ended.
struct named_start {
    void *(*routine)(void *);
    void *arg;
    char name[16];
    const char *rename_failure;  // logged as it stands when naming fails; null: the usual line
};

void *run_named(void *p) {
    std::unique_ptr<named_start> start(static_cast<named_start *>(p));
    if (start->name[0] != '\0') {
        int rc = pthread_setname_np(pthread_self(), start->name);
        if (rc != 0 && start->rename_failure != nullptr)
            VLOGE("%s", start->rename_failure);
        else if (rc != 0)
            VLOGE("Failed to rename thread name(%s)", strerror(rc));
    }
    void *(*routine)(void *) = start->routine;
    void *arg = start->arg;
    start.reset();
    return routine(arg);
}

// A named_start for pthread_create, or null when memory runs out.
named_start *new_start(void *(*routine)(void *), void *arg, const char *prefix, const char *name) {
    auto *start = new (std::nothrow) named_start{routine, arg, {}, nullptr};
    if (start != nullptr)
        make_thread_name(start->name, prefix, name != nullptr ? name : "");
    return start;
}

}  // namespace

void vorn_node_create_work_thread(vorn_node *node) {
    if (node != nullptr && node->logname[0] != '\0') {
        VLOGD("%s: Create thread for %s\n", "vorn_node_create_work_thread", node->logname);
    }
    if (node == nullptr || node->ops == nullptr || node->ops->work == nullptr)
        return;

    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        VLOGE("Failed to initialize thread attribute");
        return;
    }
    if (pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED) != 0) {
        VLOGE("Failed to set thread attribute");
        pthread_attr_destroy(&attr);
        return;
    }
    pthread_t tid;
    named_start *start = new_start(node->ops->work, node, "vornd_", node->logname);
    if (start == nullptr || pthread_create(&tid, &attr, run_named, start) != 0) {
        delete start;
        VLOGE("Failed to create thread");
    }
    pthread_attr_destroy(&attr);
}

int start_detached_thread(void *(*routine)(void *), void *arg, const char *name) {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        VLOGE("Failed to init thread attribute");
        return -1;
    }
    int ret = 0;
    pthread_t tid;
    if (pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED) != 0) {
        VLOGE("Failed to set thread to detach");
        ret = -1;
    } else {
        named_start *start = new_start(routine, arg, "", name);
        if (start == nullptr || pthread_create(&tid, &attr, run_named, start) != 0) {
            delete start;
            VLOGE("Failed to create thread");
            ret = -1;
        }
    }
    pthread_attr_destroy(&attr);
    return ret;
}

int vorn_create_named_thread(const pthread_attr_t *attr, void *(*routine)(void *), void *arg,
                             const char *name, const char *rename_failure) {
    named_start *start = new_start(routine, arg, "", name);
    if (start == nullptr)
        return ENOMEM;
    start->rename_failure = rename_failure;
    pthread_t tid;
    int rc = pthread_create(&tid, attr, run_named, start);
    if (rc != 0)
        delete start;
    return rc;
}
