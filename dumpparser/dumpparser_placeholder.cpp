// Placeholder until the dump parser is built.
#include "dumpparser/dumpparser.h"
#include "platform/log.h"

int dumpparser_enable(vorn_node *, const vorn_ctrl_msg *) {
    DPLOGE("%s: not built yet\n", "dumpparser_enable");
    return -1;
}

int dumpparser_disable(vorn_node *, const vorn_ctrl_msg *) {
    DPLOGE("%s: not built yet\n", "dumpparser_disable");
    return -1;
}

void *dumpparser_produce_thread(void *) {
    DPLOGE("%s: not built yet\n", "dumpparser_produce_thread");
    return reinterpret_cast<void *>(-1L);
}
