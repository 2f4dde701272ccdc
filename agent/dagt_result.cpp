// The result record and the message catalogues.
#include <cstring>

#include "agent/dagt.h"

const char *const dagt_error[DAGT_ERR_MAX] = {
    "Debug Agent run cmd success",
    "Debug Agent don't support this command",
    "Debug Agent input param error",
    "Can't find this param",
    "Param number is not right",
    "Invalid chipid",
    "Open device failed",
    "Read device failed",
    "Debug Agent run shell command failed",
    "Unknown command",
    "Unknown device",
    "Internal null pointer",
    "Unknown sink out mode (must be ddr or usb",
    "Unknown subsystem",
    "Unknown state",
    "Operation not permitted",
    "Unknown cti name",
    "Unknown cti type",
    "Invalid input value",
};

const char *const dagt_parser_error[5] = {
    "Parser command format error", "Parser missing param", "Parser invalid param",
    "Parser command fail",         "Parser no handler",
};

const char *const dagt_qmi_error[3] = {
    "QMI instance id init error",
    "QMI instance id invalid",
    "QMI send cmd error",
};

size_t dagt_strlcpy(char *dst, const char *src, size_t size) {
    size_t len = strlen(src);
    if (size > 0) {
        size_t n = len < size - 1 ? len : size - 1;
        memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

void dagt_set_result(dagt_result *result, uint32_t code, uint32_t text_len) {
    if (result == nullptr)
        return;
    result->code = static_cast<int32_t>(code);
    result->text_len = static_cast<int32_t>(text_len);
}

void dagt_set_error(dagt_result *result, uint32_t code) {
    if (result == nullptr || code > DAGT_ERR_MAX)
        return;
    // Code 19 is accepted but has no message: it gets an empty text.
    const char *msg = code < DAGT_ERR_MAX ? dagt_error[code] : "";
    size_t len = dagt_strlcpy(result->text, msg, sizeof result->text);
    dagt_set_result(result, code, static_cast<uint32_t>(len));
}

void dagt_set_answer(dagt_result *result, const char *answer, size_t bound) {
    if (result == nullptr)
        return;
    if (bound > sizeof result->text)
        bound = sizeof result->text;
    size_t len = dagt_strlcpy(result->text, answer, bound);
    dagt_set_result(result, DAGT_SUCCESS, static_cast<uint32_t>(len));
}
