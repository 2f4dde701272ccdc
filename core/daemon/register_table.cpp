#include "core/daemon/register_table.h"

#include <strings.h>

#include "capture/capture_pipe.h"
#include "capture/switches.h"
#include "core/node_ops.h"
#include "crashdump/crashdump.h"
#include "dumpparser/dumpparser.h"
#include "platform/log.h"
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

namespace {

int bind_row(vorn_node *node, const vorn_node_ops *row) {
    node->ops = row;
    return row->init ? row->init(node, row) : 0;
}

int bind_default(vorn_node *node, const vorn_node_ops *row) {
    VLOGD("%s doesn't exist in register table, use the default ops\n", node->logname);
    return bind_row(node, row);
}

}  // namespace

int vorn_node_ops_init_with(vorn_node *node, const vorn_node_ops *table, size_t rows) {
    if (node == nullptr) {
        VLOGE("%s, Invalied arguments\n", "vorn_node_ops_init");
        return -1;
    }
    for (size_t i = 0; i < rows; i++) {
        const vorn_node_ops *row = &table[i];
        if (row->logname == nullptr) {
            VLOGE("Please fill logname in register table!\n");
            return -1;
        }
        bool is_default_row = strcasecmp(row->logname, "default") == 0;
        if (strcasecmp(node->logname, row->logname) == 0) {
            // A node literally named "Default" takes the default path too.
            return is_default_row ? bind_default(node, row) : bind_row(node, row);
        }
        if (is_default_row)
            return bind_default(node, row);
    }
    return -1;
}

int vorn_node_ops_init(vorn_node *node) {
    return vorn_node_ops_init_with(node, vorn_register_table, VORN_REGISTER_ROWS);
}
