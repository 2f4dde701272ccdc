// Placeholder until the Debug Agent is built.
#include <cstring>

#include "agent/dagt.h"
#include "platform/log.h"

dagt_cmd_t dagt_cmd;

int dagt_cmd_init() {
    memset(&dagt_cmd, 0, sizeof dagt_cmd);
    return 0;
}

uint32_t dagt_execute(char *line, dagt_result *) {
    VLOGE("Execute command (%s) failed: %d", line ? line : "", 104);
    return 104;
}
