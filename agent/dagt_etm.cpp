// etm: the per-CPU (apps) and remote Embedded Trace Macrocells.
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "platform/log.h"

namespace {

const etm_param_row dagt_etm_disable_table[] = {
    {"apps", nullptr, 5, etm_apps_disable_attribute_etmx},
    {"audio", nullptr, 3, etm_disable_remote_trace},
    {"modem", nullptr, 3, etm_disable_remote_trace},
    {"wcn", nullptr, 3, etm_disable_remote_trace},
    {"rpm", nullptr, 3, etm_disable_remote_trace},
    {"", nullptr, -1, nullptr},
};

const etm_param_row dagt_etm_enable_table[] = {
    {"apps", nullptr, 5, etm_apps_enable_attribute_etmx},
    {"audio", nullptr, 3, etm_enable_remote_trace},
    {"modem", nullptr, 3, etm_enable_remote_trace},
    {"wcn", nullptr, 3, etm_enable_remote_trace},
    {"rpm", nullptr, 3, etm_enable_remote_trace},
    {"", nullptr, -1, nullptr},
};

const etm_param_row dagt_etm_get_table[] = {
    {"apps", nullptr, 6, dagt_etm_apps_get_etmx_state},
    {"", nullptr, -1, nullptr},
};

const dagt_subcmd dagt_etm_table[] = {
    {"get", dagt_etm_get},
    {"enable", dagt_etm_enable},
    {"disable", dagt_etm_disable},
    {"", nullptr},
};

const dagt_subcmd dagt_etm_apps_disable_attr[] = {
    {"etm_name", dagt_etm_apps_disable_etmx},
    {"", nullptr},
};

const dagt_subcmd dagt_etm_apps_enable_attr[] = {
    {"etm_name", dagt_etm_apps_enable_etmx},
    {"", nullptr},
};

int input_error(dagt_result *result) {
    dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
    return static_cast<int>(dagt_code(result));
}

// "etmN" at position 4: 0 with the index, or error 2.
int etm_index(dagt_cmd_t *cmd, dagt_result *result, bool log, uint32_t *index) {
    const char *word = dagt_param(cmd, 4);
    if (word == nullptr || strncasecmp(word, "etm", 3) != 0) {
        if (log)
            VLOGE("Invalid etm value: %s\n", word ? word : "");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return -1;
    }
    *index = static_cast<uint32_t>(strtoul(word + 3, nullptr, 10));
    return 0;
}

}  // namespace

uint32_t dagt_cmd_etm_h(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cmd_etm_h");
    return dagt_dispatch_family(cmd, result, 2, 2, dagt_etm_table);
}

// Rows whose count equals the token count are scored: subsystem word at
// position 1 gives 2, attribute word at position 3 gives 1; the first row of
// the highest score runs.
int etm_parse_param(dagt_cmd_t *cmd, dagt_result *result, const etm_param_row *table) {
    VLOGD("%s\n", "etm_parse_param");
    if (table == nullptr) {
        VLOGE("Handler table is empty\n");
        return -1;
    }
    int n = static_cast<int>(cmd->count);
    const etm_param_row *best = nullptr;
    int best_score = 0;
    for (const etm_param_row *row = table;; row++) {
        if (row->subsys == nullptr) {
            dagt_set_error(result, DAGT_ERR_SUBSYS);
            return static_cast<int>(dagt_code(result));
        }
        if (row->count < 0 || row->subsys[0] == '\0') {
            if (row != table)
                break;
            VLOGE("Unable to find handler\n");
            return input_error(result);
        }
        if (row->count != n)
            continue;
        int score = 0;
        if (n == 3) {
            if (row->attr != nullptr) {
                VLOGE("Input parameters error (number = 3)\n");
                return input_error(result);
            }
            if (strcasecmp(row->subsys, cmd->params[1]) == 0)
                score = 2;
        } else if (n >= 4 && n <= 7) {
            if (row->attr != nullptr) {
                if (strcasecmp(row->attr, cmd->params[3]) != 0)
                    continue;
                score = 1;
            }
            if (strcasecmp(row->subsys, cmd->params[1]) == 0)
                score += 2;
            if (score == 3)
                break;  // a full match ends the walk; the best row before it is used
        } else {
            VLOGE("Input parameters error (number = %d)\n", n);
            return input_error(result);
        }
        if (score > best_score) {
            best = row;
            best_score = score;
        }
    }
    if (best == nullptr || best->handler == nullptr) {
        VLOGE("Unable to find handler\n");
        return input_error(result);
    }
    best->handler(cmd, result);
    return static_cast<int>(dagt_code(result));
}

uint32_t dagt_etm_get(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_etm_get");
    etm_parse_param(cmd, result, dagt_etm_get_table);
    return dagt_code(result);
}

uint32_t dagt_etm_enable(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_etm_enable");
    etm_parse_param(cmd, result, dagt_etm_enable_table);
    return dagt_code(result);
}

uint32_t dagt_etm_disable(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_etm_disable");
    etm_parse_param(cmd, result, dagt_etm_disable_table);
    return dagt_code(result);
}

uint32_t etm_apps_enable_attribute_etmx(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "etm_apps_enable_attribute_etmx");
    cmd->cursor = 3;
    return dagt_dispatch_subcmd(cmd, result, dagt_etm_apps_enable_attr);
}

uint32_t etm_apps_disable_attribute_etmx(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "etm_apps_disable_attribute_etmx");
    cmd->cursor = 3;
    return dagt_dispatch_subcmd(cmd, result, dagt_etm_apps_disable_attr);
}

uint32_t dagt_etm_apps_enable_etmx(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_etm_apps_enable_etmx");
    uint32_t index;
    if (etm_index(cmd, result, true, &index) != 0)
        return dagt_code(result);
    return _dagt_etmx_enabledisable(result, index, 1);
}

uint32_t dagt_etm_apps_disable_etmx(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_etm_apps_disable_etmx");
    uint32_t index;
    if (etm_index(cmd, result, false, &index) != 0)
        return dagt_code(result);
    return _dagt_etmx_enabledisable(result, index, 0);
}

// A read: no CPU is brought online for it.
uint32_t dagt_etm_apps_get_etmx_state(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_etm_apps_get_etmx_state");
    int32_t count = dagt_get_cpu_count();
    if (count < 1) {
        VLOGE("This Target doesn't support ETM\n");
        dagt_set_error(result, DAGT_ERR_NOT_PERMITTED);
        return dagt_code(result);
    }
    if (strcasecmp(cmd->params[4], "etm_name") != 0) {
        VLOGE("Invalid etm param 4: %s\n", cmd->params[4]);
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    const char *word = cmd->params[5];
    if (strncasecmp(word, "etm", 3) != 0) {
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    uint32_t index = static_cast<uint32_t>(strtoul(word + 3, nullptr, 10));
    if (static_cast<int64_t>(index) >= count) {
        VLOGE("etm index out of range (index = %d ,max %d cpus)\n", static_cast<int>(index), count);
        dagt_set_error(result, DAGT_ERR_NOT_PERMITTED);
        return dagt_code(result);
    }
    char path[DAGT_CMD_LEN];
    int len =
        snprintf(path, sizeof path, "/sys/bus/coresight/devices/coresight-etm%s/enable", word + 3);
    char buf[DAGT_STATE_BUF] = {};
    if (len >= static_cast<int>(sizeof path)) {
        VLOGE("%s:Open %s failed (%s)\n", "dagt_get_state", path, strerror(ENAMETOOLONG));
        dagt_set_error(result, DAGT_ERR_OPEN_DEVICE);
    } else if (dagt_get_state(result, path, buf, DAGT_STATE_READ_LEN) == 0) {
        dagt_parse_state(result, buf);
    }
    return dagt_code(result);
}

uint32_t etm_enable_remote_trace(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "etm_enable_remote_trace");
    return _dagt_remote_etm_trace_config(result, cmd->params[1], 1);
}

uint32_t etm_disable_remote_trace(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "etm_disable_remote_trace");
    return _dagt_remote_etm_trace_config(result, cmd->params[1], 0);
}

uint32_t _dagt_remote_etm_trace_config(dagt_result *result, const char *subsys, int enable) {
    VLOGD("%s\n", "_dagt_remote_etm_trace_config");
    char path[DAGT_CMD_LEN];
    snprintf(path, sizeof path, "/sys/bus/coresight/devices/coresight-%s-etm0/enable", subsys);
    // The read only tells whether the remote ETM exists.
    char buf[DAGT_STATE_BUF] = {};
    if (dagt_get_state(result, path, buf, DAGT_STATE_READ_LEN) != 0) {
        VLOGE("Failed to get online state of %s\n", subsys);
        return dagt_code(result);
    }
    const char *word = enable ? "enable" : "disable";
    if (dagt_set_state(result, path, word) != 0)
        VLOGE("Failed to %s %s\n", word, subsys);
    return dagt_code(result);
}
