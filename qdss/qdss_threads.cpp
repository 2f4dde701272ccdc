// The QDSS node's work thread: checks that the trace device exists and starts
// the pipeline's three threads.
#include <pthread.h>
#include <unistd.h>

#include <string>

#include "core/node_ops.h"
#include "platform/log.h"
#include "platform/root.h"
#include "qdss/qdss.h"

namespace {

struct pipeline_thread {
    void *(*routine)(void *);
    const char *name;
    const char *create_failure;
    const char *rename_failure;
};

// Started in this order: the writer is ready before the first block.
const pipeline_thread kThreads[] = {
    {qdss_save_snapshot_handler, "vornd_qdss_save", "Failed to create save thread",
     "Failed to rename thread name for save"},
    {qdss_capture_snapshot_handler, "vornd_qdss_cap", "Failed to create capture thread",
     "Failed to rename thread name for capture"},
    {qdss_msg_handler, "vornd_qdss_msg", "Failed to create message handler thread",
     "Failed to rename thread name for message handler"},
};

}  // namespace

int qdss_start_pipeline(qdss_state *s, vorn_node *node) {
    VLOGI("create seperate read write thread for %s\n", node->logname);
    std::string provider;
    {
        vorn_node_guard g(node);
        if (node->log_provider != nullptr)
            provider = node->log_provider;
    }
    if (provider.empty()) {
        VLOGE("Won't start thread if no log provider defined");
        return -1;
    }
    if (access(vorn_path(provider).c_str(), F_OK) != 0) {
        VLOGE("QDSS is not enabled.\n");
        return -1;
    }
    // One pipeline per state: a second set of threads would break the lists'
    // one-taker rule.
    if (s->node != nullptr) {
        VLOGE("%s: QDSS threads already run for %s\n", "qdss_start_pipeline", s->node->logname);
        return -1;
    }

    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        VLOGE("Failed to initialize thread attribute");
        return -1;
    }
    int ret = 0;
    if (pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED) != 0) {
        VLOGE("Failed to set thread attribute");
        ret = -1;
    } else {
        pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
        s->node = node;
        for (const pipeline_thread &t : kThreads) {
            // Each thread names itself as it starts.
            if (vorn_create_named_thread(&attr, t.routine, s, t.name, t.rename_failure) != 0) {
                VLOGE("%s", t.create_failure);
                ret = -1;
                break;
            }
        }
    }
    pthread_attr_destroy(&attr);
    return ret;
}

void *qdss_start_threads(void *node) {
    if (node == nullptr)
        return reinterpret_cast<void *>(-1L);
    qdss_buffers_init();
    int rc = qdss_start_pipeline(&qdss, static_cast<vorn_node *>(node));
    return reinterpret_cast<void *>(static_cast<long>(rc));
}
