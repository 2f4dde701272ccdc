// Placeholder: the QDSS capture threads are not built yet.
#include "core/node.h"
#include "platform/log.h"
#include "qdss/qdss.h"

void *qdss_start_threads(void *arg) {
    auto *node = static_cast<vorn_node *>(arg);
    VLOGI("create seperate read write thread for %s\n", node ? node->logname : "");
    VLOGE("%s: QDSS capture is not built yet\n", "qdss_start_threads");
    return reinterpret_cast<void *>(-1L);
}
