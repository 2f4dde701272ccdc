// The Debug Agent's entry point: tokenising, the command table, the
// sub-command dispatcher and the summary line.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "agent/dagt.h"
#include "agent/dagt_cmds.h"
#include "platform/log.h"

dagt_cmd_t dagt_cmd;
// Rebuilt for every dispatched command, under dagt_serialize.
char dagt_summary[DAGT_SUMMARY_LEN];

const dagt_subcmd dagt_cmd_table[12] = {
    {"info", dagt_cmd_info_h}, {"reset", nullptr},        {"startup", nullptr},
    {"delay", nullptr},        {"sink", dagt_cmd_sink_h}, {"etm", dagt_cmd_etm_h},
    {"stm", dagt_cmd_stm_h},   {"hwe", dagt_cmd_hwe_h},   {"cti", dagt_cmd_cti_h},
    {"swt", dagt_cmd_swt_h},   {"odl", nullptr},          {"hlos", nullptr},
};

namespace {

constexpr const char *kDelimiters = " \t\n\r\"";

// Appends src, truncating at the end of the buffer.
void summary_append(size_t *len, const char *src) {
    if (*len >= sizeof dagt_summary - 1)
        return;
    *len += dagt_strlcpy(dagt_summary + *len, src, sizeof dagt_summary - *len);
    if (*len > sizeof dagt_summary - 1)
        *len = sizeof dagt_summary - 1;
}

void log_tokens(const dagt_cmd_t *cmd) {
    for (uint32_t i = 0; i < cmd->count; i++)
        VLOGD("%d: %s.\n", static_cast<int>(i), cmd->params[i]);
}

void free_tokens(dagt_cmd_t *cmd) {
    for (uint32_t i = 0; i < cmd->count && i < DAGT_MAX_PARAMS; i++) {
        free(cmd->params[i]);
        cmd->params[i] = nullptr;
    }
    cmd->count = 0;
    cmd->cursor = 0;
}

void log_summary(const dagt_cmd_t *cmd, const dagt_result *result) {
    size_t len = 0;
    dagt_summary[0] = '\0';
    bool ok = result->code == 0;
    summary_append(&len, ok ? "Success to run command: " : "Fail to run command: ");
    for (uint32_t i = 0; i < cmd->count; i++) {
        if (i > 0)
            summary_append(&len, "->");
        summary_append(&len, cmd->params[i]);
    }
    summary_append(&len, ok ? ";Resp: " : ";Reason: ");
    if (result->text_len != 0)
        summary_append(&len, result->text);
    VLOGD("%s\n", dagt_summary);
}

}  // namespace

int dagt_cmd_init() {
    memset(&dagt_cmd, 0, sizeof dagt_cmd);
    return 0;
}

std::unique_lock<std::recursive_mutex> dagt_serialize() {
    static std::recursive_mutex agent_mutex;
    return std::unique_lock<std::recursive_mutex>(agent_mutex);
}

uint32_t dagt_execute(char *line, dagt_result *result) {
    if (line == nullptr || line[0] == '#' || strncmp(line, "//", 2) == 0)
        return DAGT_COMMENT;

    auto serialized = dagt_serialize();
    free_tokens(&dagt_cmd);

    char *save = nullptr;
    char *token = strtok_r(line, kDelimiters, &save);
    if (token == nullptr)
        return DAGT_PARSER_INVALID_PARAM;
    for (; token != nullptr; token = strtok_r(nullptr, kDelimiters, &save)) {
        if (token[0] == '#')
            break;  // the rest of the line is a comment
        if (dagt_cmd.count > DAGT_MAX_PARAMS - 1) {
            VLOGE("Agent max param cnt exceeded.");
            return DAGT_PARSER_FORMAT;
        }
        char *copy = strdup(token);
        if (copy == nullptr) {
            VLOGE("Execute command (%s) failed: %d", line, DAGT_PARSER_INVALID_PARAM);
            return DAGT_PARSER_INVALID_PARAM;
        }
        dagt_cmd.params[dagt_cmd.count++] = copy;
    }
    if (dagt_cmd.count == 0) {
        VLOGE("Execute command (%s) failed: %d", line, DAGT_PARSER_INVALID_PARAM);
        return DAGT_PARSER_INVALID_PARAM;
    }
    log_tokens(&dagt_cmd);
    if (result != nullptr)
        memset(result, 0, sizeof *result);

    const dagt_subcmd *row = nullptr;
    for (const dagt_subcmd &r : dagt_cmd_table) {
        if (strcasecmp(dagt_cmd.params[0], r.name) == 0) {
            row = &r;
            break;
        }
    }
    if (row == nullptr) {
        VLOGE("No handler for this command !\n");
        log_tokens(&dagt_cmd);
        VLOGE("Execute command (%s) failed: %d", line, DAGT_PARSER_NO_HANDLER);
        return DAGT_PARSER_NO_HANDLER;
    }
    // Reserved words are accepted and do nothing.
    uint32_t code = row->handler ? row->handler(&dagt_cmd, result) : DAGT_SUCCESS;

    if (result != nullptr)
        log_summary(&dagt_cmd, result);
    if (code != 0)
        VLOGE("Execute command (%s) failed: %d", line, static_cast<int>(code));
    return code;
}

uint32_t dagt_dispatch_subcmd(dagt_cmd_t *cmd, dagt_result *result, const dagt_subcmd *table) {
    if (cmd == nullptr) {
        VLOGE("No parse context\n");
        dagt_set_error(result, DAGT_ERR_NULL_POINTER);
        return DAGT_ERR_NULL_POINTER;
    }
    const char *word = dagt_param(cmd, cmd->cursor);
    if (word == nullptr || table == nullptr)
        return dagt_code(result);
    for (const dagt_subcmd *row = table; row->name[0] != '\0'; row++) {
        if (strcasecmp(word, row->name) != 0)
            continue;
        if (row->handler == nullptr)
            return dagt_code(result);
        cmd->cursor++;
        row->handler(cmd, result);
        return dagt_code(result);
    }
    dagt_set_error(result, DAGT_ERR_UNKNOWN_CMD);
    return DAGT_ERR_UNKNOWN_CMD;
}

uint32_t dagt_dispatch_family(dagt_cmd_t *cmd, dagt_result *result, uint32_t min_tokens,
                              uint32_t skip, const dagt_subcmd *table) {
    if (result == nullptr)
        return DAGT_ERR_NULL_POINTER;
    if (cmd == nullptr || cmd->count <= min_tokens) {
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    cmd->cursor += skip;
    dagt_dispatch_subcmd(cmd, result, table);
    return dagt_code(result);
}

uint32_t dagt_check_param_cnt(dagt_cmd_t *cmd, uint32_t expected, dagt_result *result) {
    if (expected == 0) {
        VLOGE("Max parameter number is 0 ?!\n");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return DAGT_ERR_INPUT_PARAM;
    }
    uint32_t count = cmd ? cmd->count : 0;
    if (count == expected)
        return 0;
    VLOGE("Parameter number is not right , expect %d but %d\n", static_cast<int>(expected),
          static_cast<int>(count));
    dagt_set_error(result, DAGT_ERR_PARAM_NUM);
    return DAGT_ERR_PARAM_NUM;
}
