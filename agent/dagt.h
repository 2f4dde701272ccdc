// The Debug Agent: the one-line command interpreter for the CoreSight trace
// blocks.
#pragma once

#include <cstdint>

#define DAGT_MAX_PARAMS 20
#define DAGT_TEXT_LEN 256

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
    int32_t text_len;
    char text[DAGT_TEXT_LEN];
};

extern dagt_cmd_t dagt_cmd;

// Clears dagt_cmd at start-up; 0 on success.
int dagt_cmd_init();

// Tokenises line in place and runs it; result may be null.
uint32_t dagt_execute(char *line, dagt_result *result);
