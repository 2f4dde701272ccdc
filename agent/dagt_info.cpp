// info: facts about the board and the agent.
#include <cstring>

#include "agent/dagt_cmds.h"
#include "platform/log.h"
#include "platform/properties.h"

namespace {

// The chip id is the board property, at most 15 characters.
constexpr size_t kChipIdLen = 16;

uint32_t dagt_info_get(dagt_cmd_t *cmd, dagt_result *result);

const dagt_subcmd dagt_info_table[] = {
    {"get", dagt_info_get},
    {"check", dagt_info_chk},
    {"", nullptr},
};

const dagt_subcmd dagt_info_get_table[] = {
    {"version", dagt_info_get_version},
    {"chipid", dagt_info_get_chipid},
    {"hlos", dagt_info_get_hlos},
    {"sinks", dagt_info_get_sinks},
    {"", nullptr},
};

const dagt_subcmd dagt_info_check_table[] = {
    {"chipid", dagt_info_chk_chipid},
    {"", nullptr},
};

uint32_t dagt_info_get(dagt_cmd_t *cmd, dagt_result *result) {
    return dagt_dispatch_subcmd(cmd, result, dagt_info_get_table);
}

uint32_t info_answer(dagt_cmd_t *cmd, dagt_result *result, const char *answer) {
    if (dagt_check_param_cnt(cmd, 3, result) != 0)
        return dagt_code(result);
    dagt_set_answer(result, answer);
    return dagt_code(result);
}

}  // namespace

uint32_t dagt_cmd_info_h(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cmd_info_h");
    return dagt_dispatch_family(cmd, result, 1, 1, dagt_info_table);
}

// The word compared with "chipid" is the one after the next: "info check x
// chipid" reaches the check, "info check chipid" stops at the missing token.
uint32_t dagt_info_chk(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_info_chk");
    cmd->cursor++;
    return dagt_dispatch_subcmd(cmd, result, dagt_info_check_table);
}

uint32_t dagt_info_chk_chipid(dagt_cmd_t *, dagt_result *result) {
    VLOGD("%s\n", "dagt_info_chk_chipid");
    dagt_set_result(result, DAGT_SUCCESS, 0);
    return dagt_code(result);
}

uint32_t dagt_info_get_version(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_info_get_version");
    return info_answer(cmd, result, "1.0.0");
}

uint32_t dagt_info_get_chipid(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_info_get_chipid");
    if (dagt_check_param_cnt(cmd, 3, result) != 0)
        return dagt_code(result);
    char board[VORN_PROP_VALUE_MAX];
    vorn_property_get("ro.product.board", board, "");
    board[kChipIdLen - 1] = '\0';
    dagt_set_answer(result, board, kChipIdLen);
    return dagt_code(result);
}

uint32_t dagt_info_get_hlos(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_info_get_hlos");
    return info_answer(cmd, result, "Linux");
}

uint32_t dagt_info_get_sinks(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_info_get_sinks");
    return info_answer(cmd, result, "etb,ddr,tpiu,sd,usb");
}
