#include "capture/capture_worker.h"

#include <atomic>
#include <cstdlib>

#include "capture/capture_variants.h"
#include "capture/pipe_worker.h"
#include "platform/properties.h"

namespace {

// Read once by the first worker; 0 means not read yet. Every worker writes the
// same value, so no lock.
std::atomic<int> g_platform_level{0};

int platform_level() {
    int level = g_platform_level.load(std::memory_order_relaxed);
    if (level == 0) {
        char value[VORN_PROP_VALUE_MAX];
        vorn_property_get("ro.build.version.sdk", value, "0");
        level = static_cast<int>(strtol(value, nullptr, 10));
        g_platform_level.store(level, std::memory_order_relaxed);
    }
    return level;
}

}  // namespace

void *capture_pipe(void *arg) {
    auto *node = static_cast<vorn_node *>(arg);
    int level = platform_level();
    uint8_t logtype;
    {
        vorn_node_guard g(node);
        logtype = node->logtype;
    }
    bool logd = (logtype & VORN_LOGTYPE_TYPE_MASK) == VORN_LOGTYPE_ANDROID_LOG && level >= 20;

    switch (logtype & VORN_LOGTYPE_KIND_MASK) {
        case VORN_KIND_EXEC: {
            int ret = capture_exec(node);
            vorn_node_guard g(node);
            node->worker_thread = 0;  // the thread ends: the next enable starts a new one
            return ret == 0 ? nullptr : reinterpret_cast<void *>(-1L);
        }
        case VORN_KIND_PIPE:
            capture_pipe_output(node);
        case VORN_KIND_MULTIDEV:
            if (logd)
                capture_logd(node);
            else
                capture_multi_devnode(node);
            break;
        default:
            if (logd)
                capture_logd(node);
            else
                capture_devnode(node);
            break;
    }
    return nullptr;
}
