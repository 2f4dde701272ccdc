// cti: Cross Trigger Interfaces. Maps and unmaps trigger inputs and outputs
// to channels, shows a block's mapping and resets one block or all.
#include <dirent.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "agent/dagt_cmds.h"
#include "agent/dagt_state.h"
#include "core/shell.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

// "vedio" is how the video blocks are named on the boards this table was
// made for; "sensor" and "vedio2" have no device and count as unknown.
const coresight_name_row dagt_cti_names[] = {
    {"cti0", "coresight-cti0"},
    {"cti1", "coresight-cti1"},
    {"cti2", "coresight-cti2"},
    {"cti3", "coresight-cti3"},
    {"cti4", "coresight-cti4"},
    {"cti5", "coresight-cti5"},
    {"cti6", "coresight-cti6"},
    {"cti7", "coresight-cti7"},
    {"cti8", "coresight-cti8"},
    {"cti9", "coresight-cti9"},
    {"cti10", "coresight-cti10"},
    {"cti11", "coresight-cti11"},
    {"cti12", "coresight-cti12"},
    {"cti13", "coresight-cti13"},
    {"cti14", "coresight-cti14"},
    {"cti15", "coresight-cti15"},
    {"cpu0", "coresight-cti-cpu0"},
    {"cpu1", "coresight-cti-cpu1"},
    {"cpu2", "coresight-cti-cpu2"},
    {"cpu3", "coresight-cti-cpu3"},
    {"cpuL2", "coresight-l2"},
    {"adsp", "coresight-audio-cpu0"},
    {"modem", "coresight-modem-cpu0"},
    {"rpm", "coresight-rpm-cpu0"},
    {"sensor", nullptr},
    {"wcn", "coresight-wcn-cpu0"},
    {"vedio1", "coresight-vedio-cpu0"},
    {"vedio2", nullptr},
};
constexpr size_t kCtiRows = sizeof dagt_cti_names / sizeof dagt_cti_names[0];
static_assert(kCtiRows == 28);

// Index: direction (0 output, 1 input) + 2 * map.
const char *const dagt_cti_mapunmap_attr[] = {"unmap_trigout", "unmap_trigin", "map_trigout",
                                              "map_trigin"};

// Trigger attribute paths are built in this many characters.
constexpr size_t kCtiPathLen = 128;

uint32_t dagt_cti_reset_one(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cti_do_mapunmap(dagt_cmd_t *cmd, dagt_result *result);
uint32_t dagt_cti_get(dagt_cmd_t *cmd, dagt_result *result);

const dagt_subcmd dagt_cti_table[] = {
    {"reset", dagt_cti_reset_one},
    {"map", dagt_cti_do_mapunmap},
    {"unmap", dagt_cti_do_mapunmap},
    {"get", dagt_cti_get},
    {"", nullptr},
};

const char *cti_device(const char *name) {
    return coresight_get_name(name, dagt_cti_names, kCtiRows);
}

// "map block N type T trigger X channel Y".
uint32_t dagt_cti_do_mapunmap(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cti_do_mapunmap");
    char **p = cmd->params;
    if (cmd->count != 10 || strcasecmp(p[2], "block") != 0 || strcasecmp(p[4], "type") != 0 ||
        strcasecmp(p[6], "trigger") != 0 || strcasecmp(p[8], "channel") != 0) {
        VLOGE("%s, Input parameter error\n", "dagt_cti_do_mapunmap");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    uint32_t map = strcasecmp(p[1], "map") == 0 ? 1 : 0;
    uint32_t direction;
    if (strcasecmp(p[5], "input") == 0) {
        direction = 1;
    } else if (strcasecmp(p[5], "output") == 0) {
        direction = 0;
    } else {
        VLOGE("%s: Unknown cti type %s\n", "dagt_cti_do_mapunmap", p[5]);
        dagt_set_error(result, DAGT_ERR_CTI_TYPE);
        return dagt_code(result);
    }
    int values[2];
    const char *words[2] = {p[7], p[9]};
    for (int i = 0; i < 2; i++) {
        int is_hex = 0;
        if (dagt_parse_num_base(words[i], &is_hex) != 0) {
            VLOGE("check digit (%s)fail \n", words[i]);
            dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
            return dagt_code(result);
        }
        values[i] = static_cast<int>(strtoul(words[i], nullptr, is_hex ? 16 : 10));
    }
    __dagt_cti_do_mapunmap(result, p[3], direction, map, values[0], values[1]);
    return dagt_code(result);
}

uint32_t dagt_cti_get(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cti_get");
    char **p = cmd->params;
    if (cmd->count != 6 || strcasecmp(p[2], "block") != 0 || strcasecmp(p[4], "type") != 0) {
        VLOGE("%s, Input parameter error\n", "dagt_cti_get");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    const char *attr;
    if (strcasecmp(p[5], "input") == 0) {
        attr = "show_trigin";
    } else if (strcasecmp(p[5], "output") == 0) {
        attr = "show_trigout";
    } else {
        VLOGE("%s: Unknown cti type %s\n", "dagt_cti_get", p[5]);
        dagt_set_error(result, DAGT_ERR_CTI_TYPE);
        return dagt_code(result);
    }
    const char *device = cti_device(p[3]);
    if (device == nullptr) {
        VLOGE("%s:Unknown cti name %s\n", "dagt_cti_get", p[3]);
        dagt_set_error(result, DAGT_ERR_CTI_NAME);
        return dagt_code(result);
    }
    char path[kCtiPathLen];
    snprintf(path, sizeof path, DAGT_CORESIGHT_DIR "%s/%s", device, attr);
    VLOGD("%s, node path = %s\n", "dagt_cti_get", path);
    // The kernel's text is the answer, line ends included.
    char buf[kCtiPathLen + 1] = {};
    if (dagt_get_state(result, path, buf, kCtiPathLen) == 0)
        dagt_set_answer(result, buf);
    return dagt_code(result);
}

int reset_device(dagt_result *result, const char *word, const char *device) {
    VLOGI("%s: Reset %s block\n", "dagt_cti_reset_one", word);
    char path[DAGT_CMD_LEN];
    int n = snprintf(path, sizeof path, DAGT_CORESIGHT_DIR "%s/reset", device);
    if (n < 0 || static_cast<size_t>(n) >= sizeof path)
        return -1;  // no such file can be written
    return dagt_set_state(result, path, "enable");
}

// "reset <x> <name>" or "reset <x> all"; the word at position 2 is not read.
uint32_t dagt_cti_reset_one(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cti_reset_one");
    const char *word = cmd->params[3];
    if (strcasecmp(word, "all") != 0) {
        const char *device = cti_device(word);
        if (device == nullptr) {
            VLOGE("%s: Unknow cti name %s\n", "dagt_cti_reset_one", word);
            dagt_set_error(result, DAGT_ERR_CTI_NAME);
            return dagt_code(result);
        }
        reset_device(result, word, device);
        return dagt_code(result);
    }
    unique_dir dir(opendir(vorn_path(DAGT_CORESIGHT_DIR).c_str()));
    if (!dir) {
        VLOGE("%s: Open %s failed\n", "dagt_cti_reset_one", DAGT_CORESIGHT_DIR);
        dagt_set_error(result, DAGT_ERR_CTI_NAME);
        return dagt_code(result);
    }
    // Every block the kernel has, per-CPU ones included. The return value
    // collects every write's status; the record keeps what the last one left.
    int rc = 0;
    while (dirent *entry = readdir(dir.get())) {
        if (strstr(entry->d_name, "coresight-cti") != nullptr)
            rc |= reset_device(result, entry->d_name, entry->d_name);
    }
    return static_cast<uint32_t>(rc);
}

}  // namespace

uint32_t dagt_cmd_cti_h(dagt_cmd_t *cmd, dagt_result *result) {
    VLOGD("%s\n", "dagt_cmd_cti_h");
    if (result == nullptr)
        return DAGT_ERR_NULL_POINTER;
    if (cmd == nullptr || cmd->count <= 3) {
        VLOGE("%s: Input parameter error\n", "dagt_cmd_cti_h");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return dagt_code(result);
    }
    cmd->cursor++;
    dagt_dispatch_subcmd(cmd, result, dagt_cti_table);
    return dagt_code(result);
}

int __dagt_cti_do_mapunmap(dagt_result *result, const char *name, uint32_t direction, uint32_t map,
                           int trigger, int channel) {
    if (direction >= 2 || map >= 2) {
        VLOGE("%s out of range, should be 0 or 1\n", direction >= 2 ? "direction" : "map");
        return -1;
    }
    const char *device = cti_device(name);
    if (device == nullptr) {
        VLOGE("%s: Unknow cti name %s\n", "__dagt_cti_do_mapunmap", name ? name : "");
        dagt_set_error(result, DAGT_ERR_CTI_NAME);
        return -1;
    }
    char path[kCtiPathLen];
    snprintf(path, sizeof path, DAGT_CORESIGHT_DIR "%s/%s", device,
             dagt_cti_mapunmap_attr[direction + 2 * map]);
    char file[DAGT_CMD_LEN];
    char line[DAGT_CMD_LEN];
    dagt_sys_path(path, file, sizeof file);
    if (dagt_build_cmd(result, line, sizeof line, "echo %d  %d > %s", trigger, channel,
                       shell_word(file).c_str()) != 0)
        return -1;
    VLOGD("%s: cmd = %s\n", "__dagt_cti_do_mapunmap", line);
    return dagt_run_shell(result, line);
}
