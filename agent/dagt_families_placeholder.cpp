// Placeholder until the etm, swt, sink and cti families are built: their
// commands are answered "don't support this command".
#include "agent/dagt_cmds.h"

namespace {

uint32_t not_yet(dagt_result *result) {
    if (result == nullptr)
        return DAGT_ERR_NULL_POINTER;
    dagt_set_error(result, DAGT_ERR_NOT_SUPPORTED);
    return dagt_code(result);
}

}  // namespace

uint32_t dagt_cmd_sink_h(dagt_cmd_t *, dagt_result *result) {
    return not_yet(result);
}
uint32_t dagt_cmd_etm_h(dagt_cmd_t *, dagt_result *result) {
    return not_yet(result);
}
uint32_t dagt_cmd_cti_h(dagt_cmd_t *, dagt_result *result) {
    return not_yet(result);
}
uint32_t dagt_cmd_swt_h(dagt_cmd_t *, dagt_result *result) {
    return not_yet(result);
}

int32_t dagt_get_cpu_count() {
    return 0;
}
