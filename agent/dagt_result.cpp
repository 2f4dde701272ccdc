// The result record and the message catalogues.
#include <cstring>

#include "agent/dagt.h"
#include "qmi/qmi_client.h"

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

int dagt_set_qmi_status(dagt_result *result, int status) {
    switch (status) {
        case QMI_QDSS_CONNECTED:
            return 0;
        case QMI_QDSS_OK:
            dagt_set_error(result, DAGT_SUCCESS);
            return 0;
        case QMI_QDSS_INVALID_ID:
            dagt_set_error(result, DAGT_QMI_INVALID_ID);
            return -1;
        case QMI_QDSS_INIT_ERR:
            dagt_set_error(result, DAGT_QMI_INIT_ERR);
            return -1;
        default:
            dagt_set_error(result, DAGT_QMI_SEND_ERR);
            return -1;
    }
}

void dagt_set_answer(dagt_result *result, const char *answer, size_t bound) {
    if (result == nullptr)
        return;
    if (bound > sizeof result->text)
        bound = sizeof result->text;
    size_t len = dagt_strlcpy(result->text, answer, bound);
    dagt_set_result(result, DAGT_SUCCESS, static_cast<uint32_t>(len));
}
