#include "tests/support/daemon_state.h"

#include <libxml/tree.h>

#include <cstring>

#include "core/config.h"
#include "core/gbl_config.h"
#include "core/node.h"
#include "core/node_ops.h"
#include "core/node_table.h"

namespace {

void *idle_work(void *) {
    return nullptr;
}
int no_op(vorn_node *, const vorn_ctrl_msg *) {
    return 0;
}

const vorn_node_ops kCoreRows[] = {
    {"ssr", check_dump_ops, no_op, no_op, idle_work},
    {"GPU", check_dump_ops, no_op, no_op, idle_work},
    {"DynamicDebug", check_switch_ops, no_op, no_op, nullptr},
    {"Bluetooth", check_switch_ops, no_op, no_op, nullptr},
    {"DumpParser", check_dump_ops, no_op, no_op, idle_work},
    {"Default", check_capture_ops, set_node_state, set_node_state, idle_work},
};

}  // namespace

void reset_daemon_state(bool core_rows) {
    if (core_rows)
        vorn_set_register_table(kCoreRows, sizeof kCoreRows / sizeof kCoreRows[0]);
    vornd_free_nodes();
    if (vorn_conf_doc != nullptr)
        xmlFreeDoc(vorn_conf_doc);
    vorn_conf_doc = nullptr;
    vorn_conf_root = nullptr;
    memset(&gbl_config, 0, sizeof gbl_config);
}
