// stm: the System Trace Macrocell on or off.
#include <strings.h>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "platform/log.h"

namespace {

const dagt_subcmd dagt_stm_table[] = {
    {"get", dagt_stm_get},
    {"enable", dagt_stm_set},
    {"disable", dagt_stm_set},
    {"", nullptr},
};

}  // namespace

uint32_t dagt_cmd_stm_h(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cmd_stm_h");
    return dagt_dispatch_family(cmd, result, 1, 1, dagt_stm_table);
}

uint32_t dagt_stm_get(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_stm_get");
    if (dagt_check_param_cnt(cmd, 3, result) != 0)
        return dagt_code(result);
    if (strcasecmp(cmd->params[2], "state") != 0) {
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    char buf[DAGT_STATE_BUF] = {};
    if (dagt_get_state(result, DAGT_STM_ENABLE, buf, DAGT_STATE_READ_LEN) == 0)
        dagt_parse_state(result, buf);
    return dagt_code(result);
}

// The verb itself ("enable" / "disable") is the state word.
uint32_t dagt_stm_set(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_stm_set");
    if (dagt_check_param_cnt(cmd, 2, result) != 0)
        return dagt_code(result);
    dagt_set_state(result, DAGT_STM_ENABLE, cmd->params[1]);
    return dagt_code(result);
}
