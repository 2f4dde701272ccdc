// Shared routines of the Debug Agent: every sysfs write is an "echo ... >
// FILE" line carried out without a shell; reads are direct.
#include "agent/dagt_state.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/command_line.h"
#include "core/shell.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

struct subsys_row {
    const char *name;
    uint32_t number;
};

// The gap (no 7, video2 is 16) is the numbering the remote subsystems use.
const subsys_row dagt_subsys_table[] = {
    {"apps", DAGT_SUBSYS_APPS},     {"modem", DAGT_SUBSYS_MODEM},   {"wcn", DAGT_SUBSYS_WCN},
    {"RPM", DAGT_SUBSYS_RPM},       {"adsp", DAGT_SUBSYS_ADSP},     {"video1", DAGT_SUBSYS_VIDEO1},
    {"video2", DAGT_SUBSYS_VIDEO2}, {"sensor", DAGT_SUBSYS_SENSOR}, {"audio", DAGT_SUBSYS_AUDIO},
};

bool has_hex_prefix(const char *text) {
    return text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

}  // namespace

void dagt_sys_path(const char *device_path, char *out, size_t out_len) {
    std::string path = vorn_path(device_path);
    dagt_strlcpy(out, path.c_str(), out_len);
}

int dagt_run_shell(dagt_result *result, const char *cmd) {
    int status = run_daemon_line(cmd);
    if (status != 0) {
        int err = errno;
        VLOGE("Fail to run cmd %s, Reason: %s\n", cmd, strerror(err));
        if (result != nullptr) {
            result->sys_errno = err;
            size_t len = dagt_strlcpy(result->text, strerror(err), sizeof result->text);
            dagt_set_result(result, DAGT_ERR_RUN_SHELL, static_cast<uint32_t>(len));
        }
        return status;
    }
    dagt_set_result(result, DAGT_SUCCESS, 0);
    return status;
}

int dagt_build_cmd(dagt_result *result, char *out, size_t out_len, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(out, out_len, fmt, ap);
    va_end(ap);
    if (n >= 0 && static_cast<size_t>(n) < out_len)
        return 0;
    // A cut command line could write into another file.
    VLOGE("Fail to run cmd %s, Reason: %s\n", out, strerror(ENAMETOOLONG));
    if (result != nullptr) {
        result->sys_errno = ENAMETOOLONG;
        size_t len = dagt_strlcpy(result->text, strerror(ENAMETOOLONG), sizeof result->text);
        dagt_set_result(result, DAGT_ERR_RUN_SHELL, static_cast<uint32_t>(len));
    }
    return -1;
}

int dagt_get_state(dagt_result *result, const char *path, char *buffer, size_t length) {
    if (result == nullptr)
        return -1;
    if (path == nullptr) {
        VLOGE("Missing device path\n");
        dagt_set_error(result, DAGT_ERR_UNKNOWN_DEVICE);
        return -1;
    }
    if (buffer == nullptr) {
        VLOGE("Missing read buffer\n");
        dagt_set_error(result, DAGT_ERR_NULL_POINTER);
        return -1;
    }
    std::string file = vorn_path(path);
    unique_fd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        VLOGE("%s:Open %s failed (%s)\n", "dagt_get_state", path, strerror(errno));
        dagt_set_error(result, DAGT_ERR_OPEN_DEVICE);
        return -1;
    }
    ssize_t n = read_retry(fd.get(), buffer, length);
    int err = errno;
    if (n < 0) {
        VLOGE("%s:Read %s failed (%s)\n", "dagt_get_state", path, strerror(err));
        dagt_set_error(result, DAGT_ERR_READ_DEVICE);
        return -1;
    }
    return 0;
}

int dagt_set_state(dagt_result *result, const char *path, const char *word) {
    if (path == nullptr) {
        VLOGE("path is empty\n");
        return -1;
    }
    char file[DAGT_CMD_LEN];
    dagt_sys_path(path, file, sizeof file);
    // Boards without the device pass silently.
    if (access(file, F_OK) != 0)
        return -1;
    int value;
    if (word != nullptr && strcasecmp(word, "enable") == 0) {
        value = 1;
    } else if (word != nullptr && strcasecmp(word, "disable") == 0) {
        value = 0;
    } else {
        VLOGE("%s:Unknown parameter (%s)\n", "dagt_set_state", word ? word : "");
        dagt_set_error(result, DAGT_ERR_INPUT_PARAM);
        return -1;
    }
    char cmd[DAGT_CMD_LEN];
    if (dagt_build_cmd(result, cmd, sizeof cmd, "echo %01d > %s", value,
                       shell_word(file).c_str()) != 0)
        return -1;
    return dagt_run_shell(result, cmd);
}

int dagt_parse_state(dagt_result *result, const char *buffer) {
    if (buffer == nullptr) {
        dagt_set_error(result, DAGT_ERR_NULL_POINTER);
        return -1;
    }
    const char *p = has_hex_prefix(buffer) ? buffer + 2 : buffer;
    if (*p == '1') {
        dagt_set_answer(result, "enable");
        return 0;
    }
    if (*p == '0') {
        dagt_set_answer(result, "disable");
        return 0;
    }
    // Show up to four characters without reading past the text's end.
    char shown[4] = {};
    for (size_t i = 0; i < sizeof shown && p[i] != '\0'; i++)
        shown[i] = p[i];
    VLOGE("%s: Unknown state %c%c%c%c\n", "dagt_parse_state", shown[0], shown[1], shown[2],
          shown[3]);
    dagt_set_error(result, DAGT_ERR_STATE);
    return -1;
}

int dagt_get_subsys(const char *name, uint32_t *subsys) {
    if (name != nullptr) {
        for (const subsys_row &row : dagt_subsys_table) {
            if (strcasecmp(name, row.name) == 0) {
                if (subsys != nullptr)
                    *subsys = row.number;
                return 0;
            }
        }
    }
    VLOGE("Unsupported subsystem.");
    return DAGT_PARSER_INVALID_PARAM;
}

const char *coresight_get_name(const char *key, const coresight_name_row *table, size_t rows) {
    if (key == nullptr || table == nullptr || rows == 0) {
        VLOGE("%s: Invalid input\n", "coresight_get_name");
        return nullptr;
    }
    for (size_t i = 0; i < rows; i++) {
        if (table[i].key != nullptr && strcasecmp(key, table[i].key) == 0)
            return table[i].name;
    }
    return nullptr;
}

int dagt_check_number(dagt_result *result, const char *text, size_t max_len) {
    if (text == nullptr)
        return 0;
    bool hex = has_hex_prefix(text);
    // Characters are examined up to max_len from the start of the text; a
    // prefix longer than that leaves nothing to examine.
    for (size_t i = hex ? 2 : 0; i < max_len; i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\0' || c == '\n')
            return 0;
        if (hex ? !isxdigit(c) : !isdigit(c)) {
            dagt_set_error(result, DAGT_ERR_INVALID_VALUE);
            return -EINVAL;
        }
    }
    return 0;
}

int dagt_parse_num_base(const char *text, int *is_hex) {
    if (text == nullptr)
        return -1;
    bool hex = strlen(text) >= 3 && has_hex_prefix(text);
    for (const char *p = hex ? text + 2 : text; *p != '\0'; p++) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (hex ? !isxdigit(c) : !isdigit(c))
            return -1;
    }
    if (is_hex != nullptr)
        *is_hex = hex ? 1 : 0;
    return 0;
}
