// Placeholders: the ramdump collector and the GPU snapshot are not built yet.
// Their nodes load and bind, and every op reports a failure.
#include "crashdump/crashdump.h"
#include "platform/log.h"

namespace {
int not_built(const char *what) {
    VLOGE("%s: not built yet\n", what);
    return -1;
}
}  // namespace

int ssr_enable(vorn_node *, const vorn_ctrl_msg *) {
    return not_built("ssr_enable");
}
int ssr_disable(vorn_node *, const vorn_ctrl_msg *) {
    return not_built("ssr_disable");
}
void *ssr_thread(void *) {
    not_built("ssr_thread");
    return reinterpret_cast<void *>(-1L);
}

int gpu_dump_enable(vorn_node *, const vorn_ctrl_msg *) {
    return not_built("gpu_dump_enable");
}
int gpu_dump_disable(vorn_node *, const vorn_ctrl_msg *) {
    return not_built("gpu_dump_disable");
}
void *gpu_monitor_thread(void *) {
    not_built("gpu_monitor_thread");
    return reinterpret_cast<void *>(-1L);
}
