// The QDSS message handler: reacts to the node being switched on or off. On
// enable it resets the trace blocks, replays the mask file and marks capture
// active; on disable it marks capture off and tells the reader to let go of
// its descriptor.
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/log.h"
#include "qdss/qdss.h"

namespace {

enum class handler_step {
    pause,     // nothing more to do until the next look
    retry_now  // the hardware could not be programmed: again at once
};

// Programs the hardware for an enabled node; the old capture is dropped first.
handler_step enable_capture(qdss_state *s, const std::string &mask) {
    // The reader owns its descriptor and closes it once it sees qdss_fd
    // change; closing it here as well raced with its read and could close a
    // number that meanwhile belonged to another file.
    s->qdss_active.exchange(0);
    s->qdss_fd.exchange(-1);
    if (qdss_reset() != 0) {
        VLOGE("%s: Reset qdss block fail\n", "qdss_msg_handler");
        return handler_step::retry_now;
    }
    for (int i = 0; i < QDSS_CONFIGURE_TRIES; i++) {
        if (qdss_configure(mask.empty() ? nullptr : mask.c_str()) >= 0) {
            s->qdss_active.exchange(1);
            return handler_step::pause;
        }
    }
    VLOGE("Failed to configure qdss\n");
    return handler_step::retry_now;
}

// One look at the node.
handler_step look_at_node(qdss_state *s) {
    vorn_node *node = s->node;
    int32_t active = s->qdss_active.load();
    pthread_mutex_lock(&node->lock);
    bool pending = node->pending_change != 0;
    if (!pending && active != 0) {
        pthread_mutex_unlock(&node->lock);
        return handler_step::pause;
    }
    if (node->enable != 0) {
        VLOGD("Enabling QDSS");
        std::string mask(node->mask, strnlen(node->mask, sizeof node->mask));
        node->pending_change = 0;
        pthread_mutex_unlock(&node->lock);
        return enable_capture(s, mask);
    }
    if (pending) {
        VLOGD("QDSS(R) : kymbal disable qdss");
        node->pending_change = 0;
        pthread_mutex_unlock(&node->lock);
        s->qdss_active.exchange(0);
        s->qdss_fd.exchange(-1);
        return handler_step::pause;
    }
    pthread_mutex_unlock(&node->lock);
    return handler_step::pause;
}

}  // namespace

void *qdss_msg_handler(void *state) {
    auto *s = static_cast<qdss_state *>(state);
    VLOGD("QDSS message handler start.");
    int retries = 0;
    for (;;) {
        // A reset or configuration that failed is tried again at once, a
        // few times; one that keeps failing (no mask file, a trace block
        // that does not answer) goes on at the handler's pace instead of
        // spinning a core for as long as the node stays enabled.
        if (look_at_node(s) == handler_step::retry_now && retries < QDSS_IMMEDIATE_RETRIES) {
            retries++;
            continue;
        }
        retries = 0;
        sleep(QDSS_HANDLER_SECONDS);
    }
    return nullptr;
}
