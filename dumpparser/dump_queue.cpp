// The DumpParser node: enable/disable ops, the producer that queues the dump
// directories it is enabled with, and the single consumer that parses them.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/node_ops.h"
#include "dumpparser/dp_log.h"
#include "dumpparser/dump_io.h"
#include "dumpparser/dumpparser.h"

pthread_mutex_t dump_list_mutex = PTHREAD_MUTEX_INITIALIZER;
pdump_entry *dump_list_head = nullptr;
pdump_entry **dump_list_tail = &dump_list_head;
std::atomic<uint8_t> dumpparser_running{0};
std::atomic<uint64_t> dumpparser_consumer_tid{0};

int dumpparser_enable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    if (node == nullptr || cmd == nullptr)
        return -1;
    dumpparser_running = 1;
    node->enable = cmd->enable & VORN_ENABLE_BIT;
    memset(node->mask, 0, sizeof(node->mask));
    snprintf(node->mask, sizeof(node->mask), "%.*s", static_cast<int>(sizeof(cmd->mask)),
             cmd->mask);
    return 0;
}

int dumpparser_disable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    if (node == nullptr || cmd == nullptr)
        return -1;
    dumpparser_running = 0;
    node->enable = cmd->enable & VORN_ENABLE_BIT;
    memset(node->mask, 0, sizeof(node->mask));
    return 0;
}

void *dumpparser_consume_thread(void *) {
    DPLOGD("%s:consume thread run ...", DP);
    dumpparser_consumer_tid = pthread_self();
    for (;;) {
        pthread_mutex_lock(&dump_list_mutex);
        pdump_entry *e = dump_list_head;
        if (e != nullptr) {
            dump_list_head = e->next;
            if (dump_list_head == nullptr)
                dump_list_tail = &dump_list_head;
            pthread_mutex_unlock(&dump_list_mutex);
            DPLOGI("%s: get dump file %s to parse!", DP, e->path);
            dumpparser_parse_dir(e->path);
            free(e);
        } else {
            // Queued directories are parsed even after a disable: stop only
            // on an empty queue, and leave with the lock held.
            if (dumpparser_running == 0)
                break;
            pthread_mutex_unlock(&dump_list_mutex);
        }
        sleep(1);
    }
    DPLOGD("%s: consume thread exist...", DP);
    // Cleared under the lock the producer checks it under: a producer that
    // enabled again either sees this consumer keep going or starts another.
    dumpparser_consumer_tid = 0;
    pthread_mutex_unlock(&dump_list_mutex);
    return nullptr;
}

namespace {

// The consumer's id while it is being started (no pthread id is 1).
constexpr uint64_t kConsumerStarting = 1;

// Starts the consumer unless one runs; called with dump_list_mutex held.
int start_consumer() {
    if (dumpparser_consumer_tid != 0)
        return 0;
    // Marked as running before it exists, so that no second producer starts
    // another one before this one has run; the thread records its own id.
    dumpparser_consumer_tid = kConsumerStarting;
    if (start_detached_thread(dumpparser_consume_thread, nullptr, "vorn_dp_consume") != 0) {
        DPLOGE("%s: Failed to create vorn_consume_thread", DP);
        dumpparser_consumer_tid = 0;
        return -1;
    }
    return 0;
}

void queue_dump(const char *path) {
    auto *e = static_cast<pdump_entry *>(malloc(sizeof(pdump_entry)));
    if (e == nullptr) {
        DPLOGE("pdump_entry malloc: out of memory");
        return;
    }
    snprintf(e->path, sizeof(e->path), "%s", path);
    e->next = nullptr;
    pthread_mutex_lock(&dump_list_mutex);
    *dump_list_tail = e;
    dump_list_tail = &e->next;
    pthread_mutex_unlock(&dump_list_mutex);
}

}  // namespace

void *dumpparser_produce_thread(void *arg) {
    auto *node = static_cast<vorn_node *>(arg);
    if (node == nullptr) {
        DPLOGE("%s: Invalid argument", DP);
        return reinterpret_cast<void *>(-1L);
    }
    DPLOGD("%s: produce thread run ... ", DP);
    pthread_mutex_lock(&dump_list_mutex);
    if (dump_list_head == nullptr)
        dump_list_tail = &dump_list_head;
    // Set before the consumer check: a consumer on its way out sees it.
    dumpparser_running = 1;
    int rc = start_consumer();
    pthread_mutex_unlock(&dump_list_mutex);
    if (rc < 0)
        return reinterpret_cast<void *>(-1L);
    {
        vorn_node_guard g(node);
        node->worker_thread = pthread_self();
    }

    for (;;) {
        char path[VORN_MASK_LEN];
        bool queued = false;
        pthread_mutex_lock(&node->lock);
        if (node->pending_change && node->enable) {
            if (node->mask[0] != '\0') {
                DPLOGI("%s: dump file path: %s", DP, node->mask);
                memcpy(path, node->mask, sizeof(path));
                path[sizeof(path) - 1] = '\0';
                queued = true;
            }
            node->pending_change = 0;
        }
        uint8_t running = dumpparser_running;
        // The node's lock is never held while the queue's is taken.
        pthread_mutex_unlock(&node->lock);
        if (queued)
            queue_dump(path);
        if (running == 0)
            break;
        // A queued path may be followed by another at once.
        if (!queued)
            sleep(1);
    }
    DPLOGD("%s: produce thread exist ... ", DP);
    vorn_node_guard g(node);
    node->worker_thread = 0;
    return nullptr;
}
