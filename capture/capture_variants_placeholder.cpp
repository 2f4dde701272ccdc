// Placeholders until the exec, device-node and logd variants are built: each
// logs and idles, so that the node's worker thread stays alive.
#include <unistd.h>

#include "capture/capture_variants.h"
#include "platform/log.h"

namespace {
[[noreturn]] void idle(const char *what, vorn_node *node) {
    VLOGE("%s: not built yet (%s)\n", what, node ? node->logname : "");
    for (;;)
        pause();
}
}  // namespace

int capture_exec(vorn_node *node) {
    VLOGE("%s: not built yet (%s)\n", "capture_exec", node ? node->logname : "");
    return -1;
}
void capture_devnode(vorn_node *node) {
    idle("capture_devnode", node);
}
void capture_multi_devnode(vorn_node *node) {
    idle("capture_multi_devnode", node);
}
void capture_adb_socket(vorn_node *node) {
    idle("capture_adb_socket", node);
}
