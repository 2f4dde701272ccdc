// sink: where CoreSight trace data goes (ETF buffer, memory or USB through
// the ETR, SD card or Mictor through the TPIU), and which sink is selected.
#include <strings.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "core/command_line.h"
#include "core/shell.h"
#include "platform/log.h"
#include "platform/properties.h"

namespace {

#define DAGT_DEV "/sys/bus/coresight/devices/"
constexpr const char *kEtfCurrSink = DAGT_DEV "coresight-tmc-etf/curr_sink";
constexpr const char *kEtrCurrSink = DAGT_DEV "coresight-tmc-etr/curr_sink";
constexpr const char *kEtrOutMode = DAGT_DEV "coresight-tmc-etr/out_mode";
constexpr const char *kEtrByteCntr = DAGT_DEV "coresight-tmc-etr/byte_cntr_value";
constexpr const char *kTpiuCurrSink = DAGT_DEV "coresight-tpiu/curr_sink";
constexpr const char *kTpiuOutMode = DAGT_DEV "coresight-tpiu/out_mode";
constexpr const char *kTpiuSet = DAGT_DEV "coresight-tpiu/set";
#undef DAGT_DEV

// Carries out "echo <word> > <file>" (without a shell); a line that does not
// fit is not run and fails.
int echo_into(const char *word, const char *device_path) {
    char path[DAGT_CMD_LEN];
    char cmd[DAGT_CMD_LEN];
    dagt_sys_path(device_path, path, sizeof path);
    int n = snprintf(cmd, sizeof cmd, "echo %s > %s", word, shell_word(path).c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return run_daemon_line(cmd);
}

// An empty command line, which some sink changes ran, always succeeded:
// there is nothing to run.
constexpr int kEmptyCommand = 0;

uint32_t dagt_sink_set(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_sink_get(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_sink_set_ddr_bytecount(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_sink_set_ddr(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_sink_set_usb(dagt_cmd_t *cmd, dagt_result *result);

const dagt_subcmd dagt_sink_table[] = {
    {"set", dagt_sink_set},
    {"get", dagt_sink_get},
    {"", nullptr},
};

const dagt_subcmd dagt_sink_set_attr_table[] = {
    {"ddr", dagt_sink_set_ddr},
    {"usb", dagt_sink_set_usb},
    {"", nullptr},
};

// Words without handler are accepted and do nothing.
const dagt_subcmd dagt_sink_ddr_attr_table[] = {
    {"byte_count", dagt_sink_set_ddr_bytecount},
    {"location", nullptr},
    {"filename", nullptr},
    {"buffering", nullptr},
    {"", nullptr},
};

const dagt_subcmd dagt_sink_usb_attr_table[] = {
    {"hsic_timer", nullptr},
    {"location", nullptr},
    {"filename", nullptr},
    {"", nullptr},
};

uint32_t dagt_sink_set_ddr(dagt_cmd_t *cmd, dagt_result *result) {
    return dagt_dispatch_subcmd(cmd, result, dagt_sink_ddr_attr_table);
}

uint32_t dagt_sink_set_usb(dagt_cmd_t *cmd, dagt_result *result) {
    return dagt_dispatch_subcmd(cmd, result, dagt_sink_usb_attr_table);
}

uint32_t sink_shell_failed(dagt_result *result) {
    int err = errno;
    VLOGE("%s: run shell command failed\n", "dagt_sink_set");
    result->sys_errno = err;
    size_t len = dagt_strlcpy(result->text, strerror(err), sizeof result->text);
    dagt_set_result(result, DAGT_ERR_RUN_SHELL, static_cast<uint32_t>(len));
    return dagt_code(result);
}

// 1 into the current-sink file; only when that fails, the out mode.
int select_with_fallback(const char *curr_sink, const char *mode, const char *out_mode) {
    if (echo_into("1", curr_sink) == 0)
        return 0;
    return echo_into(mode, out_mode);
}

// Selects the sink named at position 2; the STM is left off afterwards and
// must be switched on again with "stm enable".
uint32_t dagt_sink_select(dagt_cmd_t *cmd, dagt_result *result) {
    const char *mode = cmd->params[2];
    int rc;
    if (strcasecmp(mode, "etb") == 0) {
        rc = echo_into("1", kEtfCurrSink);
        if (rc != 0)
            rc = kEmptyCommand;
    } else if (strcasecmp(mode, "ddr") == 0) {
        rc = select_with_fallback(kEtrCurrSink, "mem", kEtrOutMode);
    } else if (strcasecmp(mode, "usb") == 0) {
        rc = select_with_fallback(kEtrCurrSink, "usb", kEtrOutMode);
        if (rc == 0)
            vorn_property_set("sys.usb.config", "diag,qdss,adb");
    } else if (strcasecmp(mode, "sd") == 0) {
        rc = select_with_fallback(kTpiuCurrSink, "sdc", kTpiuOutMode);
    } else if (strncasecmp(mode, "tpiu", 4) == 0) {
        rc = echo_into("1", kTpiuCurrSink);
        if (rc == 0)
            rc = dagt_set_outmode(strcasecmp(mode, "tpiua") == 0 ? 5 : 6);
    } else {
        VLOGE("%s: Unknown out mode (%s)\n", "dagt_sink_set", mode);
        dagt_set_error(result, DAGT_ERR_SINK_MODE);
        return dagt_code(result);
    }
    if (rc != 0)
        return sink_shell_failed(result);
    if (echo_into("0", DAGT_STM_ENABLE) != 0)
        return sink_shell_failed(result);
    dagt_set_result(result, DAGT_SUCCESS, 0);
    return dagt_code(result);
}

uint32_t dagt_sink_set(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_sink_set");
    if (cmd->count > 3)
        return dagt_dispatch_subcmd(cmd, result, dagt_sink_set_attr_table);
    if (dagt_check_param_cnt(cmd, 3, result) != 0)
        return dagt_code(result);
    return dagt_sink_select(cmd, result);
}

// Reads a sink file; false (code 6) when it does not open.
bool read_sink_file(dagt_result *result, const char *path, char *buf) {
    memset(buf, 0, DAGT_STATE_BUF);
    return dagt_get_state(result, path, buf, DAGT_STATE_READ_LEN) == 0;
}

uint32_t dagt_sink_get(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_sink_get");
    if (dagt_check_param_cnt(cmd, 2, result) != 0)
        return dagt_code(result);
    char buf[DAGT_STATE_BUF];
    if (!read_sink_file(result, kEtfCurrSink, buf))
        return dagt_code(result);
    if (buf[0] == '1') {
        // Copied with a bound of 3: reads "et", recorded length 3.
        dagt_set_answer(result, "etb", 3);
        return dagt_code(result);
    }
    if (!read_sink_file(result, kEtrCurrSink, buf))
        return dagt_code(result);
    if (buf[0] == '1') {
        if (!read_sink_file(result, kEtrOutMode, buf))
            return dagt_code(result);
        if (strncasecmp(buf, "mem", 3) == 0) {
            dagt_set_answer(result, "ddr");
        } else if (strncasecmp(buf, "usb", 3) == 0) {
            dagt_set_answer(result, "usb");
        } else {
            VLOGE("dagt_sink_get: Unknown out mode (%s)\n", buf);
            dagt_set_error(result, DAGT_ERR_SINK_MODE);
        }
        return dagt_code(result);
    }
    if (!read_sink_file(result, kTpiuCurrSink, buf))
        return dagt_code(result);
    if (buf[0] != '1') {
        dagt_set_answer(result, "none");
        return dagt_code(result);
    }
    if (!read_sink_file(result, kTpiuOutMode, buf))
        return dagt_code(result);
    if (strncasecmp(buf, "sdc", 3) == 0) {
        dagt_set_answer(result, "sd");
    } else if (strncasecmp(buf, "mictor", 6) == 0) {
        if (read_sink_file(result, kTpiuSet, buf))
            dagt_set_answer(result, buf[0] == 'a' ? "tpiuA" : "tpiuB");
    } else {
        VLOGE("dagt_sink_get: Unknown out mode (%s)\n", buf);
        dagt_set_error(result, DAGT_ERR_SINK_MODE);
    }
    return dagt_code(result);
}

// The value goes to the kernel as typed.
uint32_t dagt_sink_set_ddr_bytecount(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_sink_set_ddr_bytecount");
    if (dagt_check_param_cnt(cmd, 5, result) != 0)
        return dagt_code(result);
    char path[DAGT_CMD_LEN];
    char line[DAGT_CMD_LEN];
    dagt_sys_path(kEtrByteCntr, path, sizeof path);
    if (dagt_build_cmd(result, line, sizeof line, "echo %s > %s",
                       shell_word(cmd->params[4]).c_str(), shell_word(path).c_str()) == 0)
        dagt_run_shell(result, line);
    return dagt_code(result);
}

}  // namespace

uint32_t dagt_cmd_sink_h(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cmd_sink_h");
    if (result == nullptr)
        return DAGT_ERR_NULL_POINTER;
    if (cmd == nullptr || cmd->count <= 1) {
        VLOGE("%s: Input parameter error\n", "dagt_cmd_sink_h");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    cmd->cursor++;
    dagt_dispatch_subcmd(cmd, result, dagt_sink_table);
    return dagt_code(result);
}

int dagt_set_outmode(int mode) {
    switch (mode) {
        case 1:
            return kEmptyCommand;
        case 2:
            return echo_into("mem", kEtrOutMode);
        case 3:
            return echo_into("usb", kEtrOutMode);
        case 4:
            return echo_into("sdc", kTpiuOutMode);
        case 5:
        case 6: {
            int rc = echo_into("mictor", kTpiuOutMode);
            if (rc != 0)
                return rc;
            return echo_into(mode == 5 ? "a" : "b", kTpiuSet);
        }
        default:
            VLOGE("%s: Unsupported QDSS out mode (%d)\n", "dagt_set_outmode", mode);
            return kEmptyCommand;
    }
}
