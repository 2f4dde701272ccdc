// hwe: hardware-event tracing on or off, and hardware-event register writes
// locally or on the modem.
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "core/shell.h"
#include "platform/log.h"
#include "qmi/qmi_client.h"

namespace {

uint32_t dagt_hwe_enable(dagt_cmd_t *cmd, dagt_result *result) {
    return _dagt_hwe_enabledisable(cmd, result, 1);
}

uint32_t dagt_hwe_disable(dagt_cmd_t *cmd, dagt_result *result) {
    return _dagt_hwe_enabledisable(cmd, result, 0);
}

const dagt_subcmd dagt_hwe_table[] = {
    {"get", dagt_hwe_get},
    {"enable", dagt_hwe_enable},
    {"disable", dagt_hwe_disable},
    {"", nullptr},
};

const dagt_subcmd dagt_hwe_reg_table[] = {
    {"setreg", dagt_hwe_set_reg},
    {"", nullptr},
};

// First character of a state file after an optional "0x".
char state_char(const char *buf) {
    if (buf[0] == '0' && (buf[1] == 'x' || buf[1] == 'X'))
        return buf[2];
    return buf[0];
}

}  // namespace

// "hwe get/enable/disable ..." first; anything else is tried as
// "hwe <subsystem> setreg ...", whose result replaces the first attempt's.
uint32_t dagt_cmd_hwe_h(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cmd_hwe_h");
    if (result == nullptr)
        return DAGT_ERR_NULL_POINTER;
    if (cmd == nullptr || cmd->count <= 1) {
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    cmd->cursor = 1;
    if (dagt_dispatch_subcmd(cmd, result, dagt_hwe_table) == 0)
        return dagt_code(result);
    cmd->cursor = 2;
    dagt_dispatch_subcmd(cmd, result, dagt_hwe_reg_table);
    return dagt_code(result);
}

uint32_t dagt_hwe_get(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_hwe_get");
    if (dagt_check_param_cnt(cmd, 3, result) != 0)
        return dagt_code(result);
    if (strcasecmp(cmd->params[2], "state") != 0) {
        VLOGE("Unsupport command:hwe get %s\n", cmd->params[2]);
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    char buf[DAGT_STATE_BUF] = {};
    if (dagt_get_state(result, DAGT_STM_HWEVENT_ENABLE, buf, DAGT_STATE_READ_LEN) != 0)
        return dagt_code(result);
    char stm_state = state_char(buf);
    memset(buf, 0, sizeof buf);
    if (dagt_get_state(result, DAGT_HWEVENT_ENABLE, buf, DAGT_STATE_READ_LEN) != 0)
        return dagt_code(result);
    char hwe_state = state_char(buf);
    dagt_parse_state(result, buf);
    // Either input switched on counts as on.
    dagt_set_answer(result, stm_state == '1' || hwe_state == '1' ? "enable" : "disable");
    return dagt_code(result);
}

uint32_t _dagt_hwe_enabledisable(dagt_cmd_t *cmd, dagt_result *result, int enable) {
    VLOGD("%s\n", "_dagt_hwe_enabledisable");
    if (dagt_check_param_cnt(cmd, 2, result) != 0)
        return dagt_code(result);
    VLOGD("%s, enable = %d\n", "_dagt_hwe_enabledisable", enable);
    char path[DAGT_CMD_LEN];
    char line[DAGT_CMD_LEN];
    dagt_sys_path(DAGT_STM_HWEVENT_ENABLE, path, sizeof path);
    if (dagt_build_cmd(result, line, sizeof line, "echo 0x%01x > %s", enable,
                       shell_word(path).c_str()) != 0)
        return dagt_code(result);
    VLOGD("%s\n", line);
    if (dagt_run_shell(result, line) != 0)
        return dagt_code(result);
    dagt_sys_path(DAGT_HWEVENT_ENABLE, path, sizeof path);
    if (dagt_build_cmd(result, line, sizeof line, "echo 0x%01x > %s", enable,
                       shell_word(path).c_str()) != 0)
        return dagt_code(result);
    VLOGD("%s\n", line);
    dagt_run_shell(result, line);
    return dagt_code(result);
}

uint32_t dagt_hwe_set_reg(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_hwe_set_reg");
    if (dagt_check_param_cnt(cmd, 7, result) != 0)
        return dagt_code(result);
    uint32_t subsys = 0;
    if (dagt_get_subsys(cmd->params[1], &subsys) == DAGT_PARSER_INVALID_PARAM) {
        dagt_set_error(result, DAGT_ERR_SUBSYS);
        return dagt_code(result);
    }
    if (subsys == DAGT_SUBSYS_APPS)
        return dagt_hwe_apps_set_reg(cmd, result);
    if (subsys == DAGT_SUBSYS_MODEM)
        return dagt_hwe_mdm_set_reg(cmd, result);
    // Leaves the code of the first dispatch ("Unknown command").
    VLOGE("Unsupported subsystem type\n");
    return dagt_code(result);
}

uint32_t dagt_hwe_apps_set_reg(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_hwe_apps_set_reg");
    if (strcmp(cmd->params[3], "addr") != 0) {
        VLOGE("3rd parameter should be 'addr'\n");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    char path[DAGT_CMD_LEN];
    char line[DAGT_CMD_LEN];
    dagt_sys_path(DAGT_HWEVENT_SETREG, path, sizeof path);
    if (dagt_build_cmd(result, line, sizeof line, "echo %s %s > %s",
                       shell_word(cmd->params[4]).c_str(), shell_word(cmd->params[6]).c_str(),
                       shell_word(path).c_str()) != 0)
        return dagt_code(result);
    VLOGD("%s: %s \n", "dagt_hwe_apps_set_reg", line);
    dagt_run_shell(result, line);
    return dagt_code(result);
}

// A modem register write is reported as a success whatever the modem says;
// only the log tells a failed QMI call.
uint32_t dagt_hwe_mdm_set_reg(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_hwe_mdm_set_reg");
    if (strcmp(cmd->params[3], "addr") != 0 || strcmp(cmd->params[5], "value") != 0) {
        if (strcmp(cmd->params[3], "addr") != 0)
            VLOGE("3rd parameter should be 'addr'\n");
        else
            VLOGE("3rd parameter should be 'value'\n");
        dagt_set_error(result, DAGT_SUBSYS_MODEM);
        return dagt_code(result);
    }
    if (dagt_set_qmi_status(result, qmi_qdss_client_init(DAGT_SUBSYS_MODEM)) == 0) {
        uint32_t addr = static_cast<uint32_t>(strtoul(cmd->params[4], nullptr, 0));
        uint32_t value = static_cast<uint32_t>(strtoul(cmd->params[6], nullptr, 0));
        VLOGD("%s: 0x%x->0x%x \n", "dagt_hwe_mdm_set_reg", addr, value);
        dagt_set_qmi_status(result, qmi_set_hw_reg(DAGT_SUBSYS_MODEM, addr, value));
    }
    dagt_set_result(result, DAGT_SUCCESS, 0);
    return dagt_code(result);
}
