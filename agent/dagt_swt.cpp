// swt: software trace points. On the application processor the function
// tracer and its events; on remote processors their trace entities, which
// can only be switched on from here.
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "platform/log.h"
#include "qmi/qmi_client.h"

namespace {

constexpr const char *kTracingOn = "/sys/kernel/debug/tracing/tracing_on";
// Event paths are built in this many characters.
constexpr size_t kEventPathLen = 128;

uint32_t dagt_apps_enable_ftrace(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_disable_ftrace(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_enable_ftrace_ext(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_disable_ftrace_ext(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_get_state(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_get_ftrace_ext_state(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_mdm_enable_tds(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_mdm_enable_diag(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_mdm_enable_ulog(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_wcn_enable_tds(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_wcn_enable_diag(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_wcn_enable_ulog(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_venus_enable_tds(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_enable_ftrace_ext_eventgroup(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_disable_ftrace_ext_eventgroup(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_get_ftrace_event_state(dagt_cmd_t *cmd, dagt_result *result);

uint32_t dagt_apps_get_ftrace_state(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_apps_get_ftrace_group_state(dagt_cmd_t *cmd, dagt_result *result);

const etm_param_row dagt_swt_enable_table[] = {
    {"apps", "ftrace", 4, dagt_apps_enable_ftrace},
    {"apps", "ftrace", 6, dagt_apps_enable_ftrace_ext},
    {"modem", "tds", 4, dagt_mdm_enable_tds},
    {"modem", "diag", 4, dagt_mdm_enable_diag},
    {"modem", "ulog", 4, dagt_mdm_enable_ulog},
    {"wcn", "tds", 4, dagt_wcn_enable_tds},
    {"wcn", "diag", 4, dagt_wcn_enable_diag},
    {"wcn", "ulog", 4, dagt_wcn_enable_ulog},
    {"venus", "tds", 4, dagt_venus_enable_tds},
    {"", nullptr, -1, nullptr},
};

const etm_param_row dagt_swt_disable_table[] = {
    {"apps", "ftrace", 4, dagt_apps_disable_ftrace},
    {"apps", "ftrace", 6, dagt_apps_disable_ftrace_ext},
    {"", nullptr, -1, nullptr},
};

const etm_param_row dagt_swt_get_table[] = {
    {"apps", "state", 4, dagt_apps_get_state},
    {"apps", "ftrace", 4, dagt_apps_get_ftrace_state},
    {"apps", "ftrace", 6, dagt_apps_get_ftrace_ext_state},
    {"", nullptr, -1, nullptr},
};

uint32_t dagt_swt_get(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_swt_get");
    swt_parse_param(cmd, result, dagt_swt_get_table);
    return dagt_code(result);
}

uint32_t dagt_swt_disable(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_swt_disable");
    swt_parse_param(cmd, result, dagt_swt_disable_table);
    return dagt_code(result);
}

uint32_t dagt_swt_enable(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_swt_enable");
    swt_parse_param(cmd, result, dagt_swt_enable_table);
    return dagt_code(result);
}

const dagt_subcmd dagt_swt_table[] = {
    {"get", dagt_swt_get},
    {"disable", dagt_swt_disable},
    {"enable", dagt_swt_enable},
    {"", nullptr},
};

const dagt_subcmd dagt_swt_enable_ext_table[] = {
    {"event", dagt_apps_enable_ftrace_ext_eventgroup},
    {"group", dagt_apps_enable_ftrace_ext_eventgroup},
    {"", nullptr},
};

const dagt_subcmd dagt_swt_disable_ext_table[] = {
    {"event", dagt_apps_disable_ftrace_ext_eventgroup},
    {"group", dagt_apps_disable_ftrace_ext_eventgroup},
    {"", nullptr},
};

const dagt_subcmd dagt_swt_get_ext_table[] = {
    {"event", dagt_apps_get_ftrace_event_state},
    {"group", dagt_apps_get_ftrace_group_state},
    {"", nullptr},
};

int input_error(dagt_result *result) {
    dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
    return static_cast<int>(dagt_code(result));
}

uint32_t _dagt_swt_ftrace_enabledisable(dagt_result *result, int enable) {
    dagt_set_state(result, kTracingOn, enable ? "enable" : "disable");
    return dagt_code(result);
}

uint32_t dagt_apps_enable_ftrace(dagt_cmd_t *, dagt_result *result) {
    return _dagt_swt_ftrace_enabledisable(result, 1);
}

uint32_t dagt_apps_disable_ftrace(dagt_cmd_t *, dagt_result *result) {
    return _dagt_swt_ftrace_enabledisable(result, 0);
}

uint32_t read_state(dagt_result *result, const char *path) {
    char buf[DAGT_STATE_BUF] = {};
    if (dagt_get_state(result, path, buf, DAGT_STATE_READ_LEN) == 0)
        dagt_parse_state(result, buf);
    return dagt_code(result);
}

uint32_t dagt_apps_get_state(dagt_cmd_t *, dagt_result *result) {
    return read_state(result, kTracingOn);
}

// "get state" and "get ftrace" read the same file.
uint32_t dagt_apps_get_ftrace_state(dagt_cmd_t *cmd, dagt_result *result) {
    return dagt_apps_get_state(cmd, result);
}

// The event or group enable file of the word at position 5; false when the
// path does not fit.
bool event_path(const dagt_cmd_t *cmd, char *path) {
    int n =
        snprintf(path, kEventPathLen, "/sys/kernel/debug/tracing/events/%s/enable", cmd->params[5]);
    return n >= 0 && static_cast<size_t>(n) < kEventPathLen;
}

// A path too long to build is no file: switching passes silently, as for
// any event the kernel does not have.
uint32_t dagt_swt_ftrace_ext_enabledisable(dagt_cmd_t *cmd, dagt_result *result, int enable) {
    char path[kEventPathLen];
    if (event_path(cmd, path))
        dagt_set_state(result, path, enable ? "enable" : "disable");
    return dagt_code(result);
}

uint32_t dagt_apps_enable_ftrace_ext_eventgroup(dagt_cmd_t *cmd, dagt_result *result) {
    return dagt_swt_ftrace_ext_enabledisable(cmd, result, 1);
}

uint32_t dagt_apps_disable_ftrace_ext_eventgroup(dagt_cmd_t *cmd, dagt_result *result) {
    return dagt_swt_ftrace_ext_enabledisable(cmd, result, 0);
}

uint32_t dagt_apps_get_ftrace_event_state(dagt_cmd_t *cmd, dagt_result *result) {
    char path[kEventPathLen];
    if (!event_path(cmd, path)) {
        VLOGE("%s:Open %s failed (%s)\n", "dagt_get_state", path, strerror(ENAMETOOLONG));
        dagt_set_error(result, DAGT_ERR_OPEN_DEVICE);
        return dagt_code(result);
    }
    return read_state(result, path);
}

// Events and groups are read the same way.
uint32_t dagt_apps_get_ftrace_group_state(dagt_cmd_t *cmd, dagt_result *result) {
    return dagt_apps_get_ftrace_event_state(cmd, result);
}

// Six tokens: the word at position 4 picks event or group.
uint32_t ftrace_ext(dagt_cmd_t *cmd, dagt_result *result, const dagt_subcmd *table) {
    cmd->cursor = 4;
    return dagt_dispatch_subcmd(cmd, result, table);
}

uint32_t dagt_apps_enable_ftrace_ext(dagt_cmd_t *cmd, dagt_result *result) {
    return ftrace_ext(cmd, result, dagt_swt_enable_ext_table);
}

uint32_t dagt_apps_disable_ftrace_ext(dagt_cmd_t *cmd, dagt_result *result) {
    return ftrace_ext(cmd, result, dagt_swt_disable_ext_table);
}

uint32_t dagt_apps_get_ftrace_ext_state(dagt_cmd_t *cmd, dagt_result *result) {
    return ftrace_ext(cmd, result, dagt_swt_get_ext_table);
}

// A failed connection leaves the record as it was (its codes are not
// stored), so the command reports the record's earlier code.
uint32_t dagt_swt_remote_enable(dagt_result *result, uint32_t instance, uint32_t entity) {
    if (dagt_set_qmi_status(result, qmi_qdss_client_init(instance)) != 0)
        return dagt_code(result);
    dagt_set_qmi_status(result, qmi_set_entity_state(instance, entity, 1));
    return dagt_code(result);
}

uint32_t dagt_mdm_enable_tds(dagt_cmd_t *, dagt_result *result) {
    return dagt_swt_remote_enable(result, QDSS_QMI_INSTANCE_MODEM, QDSS_QMI_ENTITY_TDS);
}

uint32_t dagt_mdm_enable_diag(dagt_cmd_t *, dagt_result *result) {
    return dagt_swt_remote_enable(result, QDSS_QMI_INSTANCE_MODEM, QDSS_QMI_ENTITY_DIAG);
}

uint32_t dagt_mdm_enable_ulog(dagt_cmd_t *, dagt_result *result) {
    return dagt_swt_remote_enable(result, QDSS_QMI_INSTANCE_MODEM, QDSS_QMI_ENTITY_ULOG);
}

uint32_t dagt_wcn_enable_tds(dagt_cmd_t *, dagt_result *result) {
    return dagt_swt_remote_enable(result, QDSS_QMI_INSTANCE_WCN, QDSS_QMI_ENTITY_TDS);
}

uint32_t dagt_wcn_enable_diag(dagt_cmd_t *, dagt_result *result) {
    return dagt_swt_remote_enable(result, QDSS_QMI_INSTANCE_WCN, QDSS_QMI_ENTITY_DIAG);
}

uint32_t dagt_wcn_enable_ulog(dagt_cmd_t *, dagt_result *result) {
    return dagt_swt_remote_enable(result, QDSS_QMI_INSTANCE_WCN, QDSS_QMI_ENTITY_ULOG);
}

uint32_t dagt_venus_enable_tds(dagt_cmd_t *, dagt_result *result) {
    return dagt_swt_remote_enable(result, QDSS_QMI_INSTANCE_VENUS, QDSS_QMI_ENTITY_TDS);
}

}  // namespace

uint32_t dagt_cmd_swt_h(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cmd_swt_h");
    return dagt_dispatch_family(cmd, result, 2, 2, dagt_swt_table);
}

// The first row that matches token count, subsystem word (position 1) and
// name word (position 3) runs; there is no scoring.
int swt_parse_param(dagt_cmd_t *cmd, dagt_result *result, const etm_param_row *table) {
    VLOGD("%s\n", "swt_parse_param");
    if (table == nullptr) {
        VLOGE("Table is empty\n");
        return -1;
    }
    int n = static_cast<int>(cmd->count);
    for (const etm_param_row *row = table;; row++) {
        if (row->subsys == nullptr) {
            dagt_set_error(result, DAGT_ERR_SUBSYS);
            return static_cast<int>(dagt_code(result));
        }
        if (row->count < 0 || row->subsys[0] == '\0') {
            VLOGE("Unable to find the handler\n");
            return input_error(result);
        }
        if (row->count != n)
            continue;
        bool taken;
        if (n == 3) {
            if (row->attr != nullptr) {
                VLOGE("Input parameters error (3)\n");
                return input_error(result);
            }
            taken = strcasecmp(row->subsys, cmd->params[1]) == 0 && row->handler != nullptr;
        } else {
            if (row->attr == nullptr || row->count < 3 || row->count > 6) {
                VLOGE("Input parameters error (%d)\n", row->count);
                return input_error(result);
            }
            taken = strcasecmp(row->subsys, cmd->params[1]) == 0 &&
                    strcasecmp(row->attr, cmd->params[3]) == 0 && row->handler != nullptr;
        }
        if (taken) {
            row->handler(cmd, result);
            return static_cast<int>(dagt_code(result));
        }
    }
}
