// Routines every Debug Agent family shares: shell writes, sysfs on/off
// files, subsystem names, CoreSight name tables and number checks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "agent/dagt.h"

// Paths and command lines are built in buffers of this size.
#define DAGT_CMD_LEN 256
// State files are read this far (into a zeroed buffer of DAGT_STATE_BUF).
#define DAGT_STATE_READ_LEN 10
#define DAGT_STATE_BUF 16

#define DAGT_CORESIGHT_DIR "/sys/bus/coresight/devices/"
#define DAGT_STM_ENABLE "/sys/bus/coresight/devices/coresight-stm/enable"
#define DAGT_STM_HWEVENT_ENABLE "/sys/bus/coresight/devices/coresight-stm/hwevent_enable"
#define DAGT_HWEVENT_ENABLE "/sys/bus/coresight/devices/coresight-hwevent/enable"
#define DAGT_HWEVENT_SETREG "/sys/bus/coresight/devices/coresight-hwevent/setreg"

// Subsystem numbers (also the QMI instance numbers of remote processors).
#define DAGT_SUBSYS_APPS 1
#define DAGT_SUBSYS_MODEM 2
#define DAGT_SUBSYS_WCN 3
#define DAGT_SUBSYS_RPM 4
#define DAGT_SUBSYS_ADSP 5
#define DAGT_SUBSYS_VIDEO1 6
#define DAGT_SUBSYS_VIDEO2 16
#define DAGT_SUBSYS_SENSOR 8
#define DAGT_SUBSYS_AUDIO 9

// A short name and the CoreSight device it stands for (null: none).
struct coresight_name_row {
    const char *key;
    const char *name;
};

// Runs one shell command; non-zero status sets code 8 with strerror(errno).
int dagt_run_shell(dagt_result *result, const char *cmd);

// Formats a shell command line into out (DAGT_CMD_LEN bytes). A line that
// does not fit is not run: it fails like a shell command (code 8, with
// ENAMETOOLONG as the error) and -1 is returned.
int dagt_build_cmd(dagt_result *result, char *out, size_t out_len, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Reads up to length bytes of a device file into buffer (zeroed by the caller).
int dagt_get_state(dagt_result *result, const char *path, char *buffer, size_t length);

// Writes 1 ("enable") or 0 ("disable") into a device file with an echo. A
// missing file returns -1 and leaves the result alone.
int dagt_set_state(dagt_result *result, const char *path, const char *word);

// Turns a file's content ("1", "0x0", ...) into the answer enable / disable.
int dagt_parse_state(dagt_result *result, const char *buffer);

// Looks a subsystem name up; 0 with its number, or 102.
int dagt_get_subsys(const char *name, uint32_t *subsys);

// The device name for key, or null.
const char *coresight_get_name(const char *key, const coresight_name_row *table, size_t rows);

// Checks a decimal or "0x" hexadecimal argument over at most max_len
// characters; 0, or -22 with code 18.
int dagt_check_number(dagt_result *result, const char *text, size_t max_len);

// Tells whether text is a well-formed decimal or "0x" hexadecimal number;
// 0 (and *is_hex), or -1.
int dagt_parse_num_base(const char *text, int *is_hex);

// The resolved path of a device path inside a shell command line (the root
// applied), bounded to DAGT_CMD_LEN.
void dagt_sys_path(const char *device_path, char *out, size_t out_len);
