// Placeholders until the switches are built.
#include "capture/switches.h"
#include "platform/log.h"

int vorn_set_dynamic_debug(vorn_node *, const vorn_ctrl_msg *) {
    VLOGE("%s: not built yet\n", "vorn_set_dynamic_debug");
    return -1;
}

int vorn_set_bluetooth(vorn_node *, const vorn_ctrl_msg *) {
    VLOGE("%s: not built yet\n", "vorn_set_bluetooth");
    return -1;
}
