// The Debug Agent: the one-line command interpreter for the CoreSight trace
// blocks. A line is tokenised into dagt_cmd, dispatched through
// dagt_cmd_table and answered in the caller's dagt_result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#define DAGT_MAX_PARAMS 20
#define DAGT_TEXT_LEN 256
#define DAGT_SUMMARY_LEN 4096

// The command record shared by every handler.
struct dagt_cmd_t {
    uint32_t count;   // tokens held
    uint32_t cursor;  // token the next dispatch step examines
    char *params[DAGT_MAX_PARAMS];
};

// The result record a caller owns and passes in.
struct dagt_result {
    int32_t code;
    int32_t sys_errno;
    int32_t text_len;  // as returned by the bounded copy; 0 means no text
    char text[DAGT_TEXT_LEN];
};

// Result codes (index into dagt_error).
enum dagt_error_code : uint32_t {
    DAGT_SUCCESS = 0,
    DAGT_ERR_NOT_SUPPORTED = 1,
    DAGT_ERR_INPUT_PARAM = 2,
    DAGT_ERR_PARAM_NOT_FOUND = 3,
    DAGT_ERR_PARAM_NUM = 4,
    DAGT_ERR_CHIPID = 5,
    DAGT_ERR_OPEN_DEVICE = 6,
    DAGT_ERR_READ_DEVICE = 7,
    DAGT_ERR_RUN_SHELL = 8,
    DAGT_ERR_UNKNOWN_CMD = 9,
    DAGT_ERR_UNKNOWN_DEVICE = 10,
    DAGT_ERR_NULL_POINTER = 11,
    DAGT_ERR_SINK_MODE = 12,
    DAGT_ERR_SUBSYS = 13,
    DAGT_ERR_STATE = 14,
    DAGT_ERR_NOT_PERMITTED = 15,
    DAGT_ERR_CTI_NAME = 16,
    DAGT_ERR_CTI_TYPE = 17,
    DAGT_ERR_INVALID_VALUE = 18,
    DAGT_ERR_MAX = 19,  // highest code dagt_set_error accepts; has no message
};

// Codes dagt_execute returns itself (index into dagt_parser_error, minus 100).
enum dagt_parser_code : uint32_t {
    DAGT_COMMENT = 1,
    DAGT_PARSER_FORMAT = 100,
    DAGT_PARSER_MISSING_PARAM = 101,
    DAGT_PARSER_INVALID_PARAM = 102,
    DAGT_PARSER_CMD_FAIL = 103,
    DAGT_PARSER_NO_HANDLER = 104,
};

// Codes of the remote-subsystem calls (index into dagt_qmi_error, minus 111).
// dagt_set_error does not store them: a failed QMI call leaves the record as
// it was and only the log tells.
enum dagt_qmi_code : uint32_t {
    DAGT_QMI_INIT_ERR = 111,
    DAGT_QMI_INVALID_ID = 112,
    DAGT_QMI_SEND_ERR = 113,
};

extern const char *const dagt_error[DAGT_ERR_MAX];
extern const char *const dagt_parser_error[5];
extern const char *const dagt_qmi_error[3];

typedef uint32_t (*dagt_handler)(dagt_cmd_t *cmd, dagt_result *result);

// A sub-command row; a table ends with a row whose name is "". A row may have
// no handler (the word is accepted and does nothing).
struct dagt_subcmd {
    const char *name;
    dagt_handler handler;
};

extern dagt_cmd_t dagt_cmd;

// The summary line of the last dispatched command (logged at debug priority).
extern char dagt_summary[DAGT_SUMMARY_LEN];

// The top-level commands; the row index is the command's number.
extern const dagt_subcmd dagt_cmd_table[12];

// Clears dagt_cmd at start-up; 0 on success.
int dagt_cmd_init();

// Agent lines run one at a time: the command record, the summary and the QMI
// connections are shared by the socket's agent requests and the QDSS threads.
// dagt_execute takes this lock itself; hold it across lines that belong
// together (a mask file and the QMI release after it, a reset).
std::unique_lock<std::recursive_mutex> dagt_serialize();

// Tokenises line in place and runs it; result may be null. Returns 0, 1 for a
// comment, 100 (too many tokens), 102 (no token), 104 (unknown command) or the
// handler's code.
uint32_t dagt_execute(char *line, dagt_result *result);

// Stores code and text_len (the caller has filled text).
void dagt_set_result(dagt_result *result, uint32_t code, uint32_t text_len);

// Stores code with its message as the text; codes above 19 are ignored.
void dagt_set_error(dagt_result *result, uint32_t code);

// Records a QMI client outcome (qmi_qdss_status) as the matching agent code
// and returns 0 when the call went through, -1 otherwise.
int dagt_set_qmi_status(dagt_result *result, int status);

// Copies an answer into result->text and sets code 0. bound is the copy's
// size limit (at most DAGT_TEXT_LEN); the stored length is that of answer.
void dagt_set_answer(dagt_result *result, const char *answer, size_t bound = DAGT_TEXT_LEN);

// Runs the handler of the row whose name matches the token at the cursor;
// returns the record's code.
uint32_t dagt_dispatch_subcmd(dagt_cmd_t *cmd, dagt_result *result, const dagt_subcmd *table);

// The shape of a family's top-level handler: 11 without a result record,
// error 2 unless the line has more than min_tokens tokens, otherwise the
// cursor moves by skip and the word there is dispatched on table.
uint32_t dagt_dispatch_family(dagt_cmd_t *cmd, dagt_result *result, uint32_t min_tokens,
                              uint32_t skip, const dagt_subcmd *table);

// 0 when the command has exactly expected tokens, else the code it set.
uint32_t dagt_check_param_cnt(dagt_cmd_t *cmd, uint32_t expected, dagt_result *result);

// The record's code, or 0 without a record.
inline uint32_t dagt_code(const dagt_result *result) {
    return result ? static_cast<uint32_t>(result->code) : 0;
}

// The token at position i, or null past the last.
inline const char *dagt_param(const dagt_cmd_t *cmd, uint32_t i) {
    return cmd && i < cmd->count && i < DAGT_MAX_PARAMS ? cmd->params[i] : nullptr;
}

// strlcpy: copies at most size - 1 bytes, always terminates, returns strlen(src).
size_t dagt_strlcpy(char *dst, const char *src, size_t size);
