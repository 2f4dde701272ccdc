#include "daemon/register_table.h"

#include "capture/capture_worker.h"
#include "capture/switches.h"
#include "core/node_ops.h"
#include "core/node_table.h"
#include "crashdump/crashdump.h"
#include "dumpparser/dumpparser.h"
#include "qdss/qdss.h"

const vorn_node_ops vorn_register_table[VORN_REGISTER_ROWS] = {
    {"ssr", check_dump_ops, ssr_enable, ssr_disable, ssr_thread},
    {"GPU", check_dump_ops, gpu_dump_enable, gpu_dump_disable, gpu_monitor_thread},
    {"DynamicDebug", check_switch_ops, vorn_set_dynamic_debug, vorn_set_dynamic_debug, nullptr},
    {"Bluetooth", check_switch_ops, vorn_set_bluetooth, vorn_set_bluetooth, nullptr},
    {"AdbMain", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"AdbRadio", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"AdbEvents", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"Dmesg", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"RPM", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"QDSS", check_capture_ops, set_node_state, set_node_state, qdss_start_threads},
    {"QXDM", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"WlanTcp", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"DataTcp", check_capture_ops, set_node_state, set_node_state, capture_pipe},
    {"DumpParser", check_dump_ops, dumpparser_enable, dumpparser_disable,
     dumpparser_produce_thread},
    {"Default", check_capture_ops, set_node_state, set_node_state, capture_pipe},
};

void vorn_use_register_table() {
    vorn_set_register_table(vorn_register_table, VORN_REGISTER_ROWS);
}
