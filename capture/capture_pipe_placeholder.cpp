// Placeholder until the capture workers are built: the worker logs and ends.
#include "capture/capture_pipe.h"

#include "core/node.h"
#include "platform/log.h"

void *capture_pipe(void *arg) {
    auto *node = static_cast<vorn_node *>(arg);
    VLOGE("%s: capture workers are not built yet (%s)\n", "capture_pipe",
          node ? node->logname : "");
    return reinterpret_cast<void *>(-1L);
}

void selfsig_handle(int sig) {
    VLOGD("sig =%d", sig);
}
