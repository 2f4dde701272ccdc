// Fuzzes the control-socket request handler: each input is one received
// request (its first 256 bytes, the rest of the buffer zero, with its real
// length), handled on a daemon state loaded in memory from a fresh working
// file; the node changes it queues are then applied as the dispatch thread
// applies them. Replies must have their layout and the working file must stay
// readable with every element.
//
// Agent lines (type 7) and archives (type 8) leave the handler for the Debug
// Agent and the archive thread, which run shell commands and have targets of
// their own; they are skipped here.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/cmd_list.h"
#include "core/config.h"
#include "core/node_ops.h"
#include "core/node_table.h"
#include "daemon/control_request.h"
#include "daemon/dispatcher.h"
#include "daemon/register_table.h"
#include "platform/root.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

const char kConf[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<vornconf version=\"1\">\n"
    "  <global enable=\"1\" log_path=\"/sdcard/logs/\"/>\n"
    "  <Alpha logname=\"Alpha\" enable=\"0\" logtype=\"128\" log_provider=\"a\" "
    "log_filepath=\"a\" mask=\"m\"/>\n"
    "  <Beta logname=\"Beta\" enable=\"1\" logtype=\"128\" log_provider=\"b\" "
    "log_filepath=\"b\"/>\n"
    "  <DumpParser logname=\"DumpParser\" logtype=\"32\" mask=\"dp\"/>\n"
    "  <Other logname=\"Lone\" logtype=\"128\" log_provider=\"l\" log_filepath=\"l\"/>\n"
    "</vornconf>\n";
constexpr unsigned kElements = 5;

// Ops without workers: the state setter, and one that fails after it.
int failing_op(vorn_node *node, const vorn_ctrl_msg *cmd) {
    set_node_state(node, cmd);
    return -1;
}
const vorn_node_ops kRow = {"Fuzz", nullptr, set_node_state, set_node_state, nullptr};
const vorn_node_ops kFailingRow = {"Fuzz", nullptr, failing_op, failing_op, nullptr};

std::string g_root;

void reset_state() {
    vornd_free_nodes();
    if (vorn_conf_doc)
        xmlFreeDoc(vorn_conf_doc);
    vorn_conf_doc = nullptr;
    vorn_conf_root = nullptr;
}

void load_state() {
    std::ofstream(g_root + "/data/vorn-conf.xml", std::ios::trunc) << kConf;
    int n = vorn_config_choose();
    if (n != static_cast<int>(kElements) || vornd_load_nodes(n, false) != 0)
        abort();
    for (int i = 1; i < vorn_node_count; i++)
        vorn_nodes[i].ops = strcmp(vorn_nodes[i].logname, "Beta") == 0 ? &kFailingRow : &kRow;
}

bool terminated(const char *field, size_t n) {
    return strnlen(field, n) < n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Saves sync the file; keep them in memory when we can.
    g_root =
        fuzz_temp_dir("request", std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp");
    std::filesystem::create_directories(g_root + "/etc");
    std::filesystem::create_directories(g_root + "/data");
    std::ofstream(g_root + "/etc/vorn-conf.xml") << kConf;
    vorn_set_root(g_root.c_str());
    vorn_use_register_table();
    fuzz_quiet();
    cmd_list_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 0 && (data[0] == VORN_MSG_AGENT || data[0] == VORN_MSG_ARCHIVE))
        return 0;
    load_state();

    vorn_ctrl_msg msg;
    memset(&msg, 0, sizeof msg);
    size_t len = size < sizeof msg ? size : sizeof msg;
    memcpy(&msg, data, len);
    uint8_t type = msg.msg_type;
    vorn_reply_kind reply = vornd_handle_request(&msg, static_cast<int>(len));

    if (reply == VORN_REPLY_ACK) {
        vorn_ctrl_msg ack = {};
        ack.msg_type = VORN_MSG_REPLY;
        if (memcmp(&msg, &ack, sizeof msg) != 0)
            abort();
    } else if (reply == VORN_REPLY_MSG) {
        // A node reply keeps its type; the global settings carry 0x80.
        if (msg.msg_type != (type == VORN_MSG_QUERY_NODE ? 0x81 : VORN_MSG_REPLY))
            abort();
        if (type == VORN_MSG_QUERY_NODE && (!terminated(msg.logname, sizeof msg.logname) ||
                                            !terminated(msg.mask, sizeof msg.mask)))
            abort();
    }
    // Type 1 is answered only for a known name.
    if ((type == VORN_MSG_SET_NODE) != (reply == VORN_REPLY_ACK) ||
        (type == VORN_MSG_GET_GLOBAL && reply != VORN_REPLY_MSG) ||
        (reply == VORN_REPLY_MSG && type != VORN_MSG_QUERY_NODE && type != VORN_MSG_GET_GLOBAL))
        abort();

    // The dispatcher frees every command, known name or not.
    while (vorn_pending_cmd *cmd = cmd_list_take_locked())
        vornd_dispatch_cmd(cmd);

    if (type == VORN_MSG_SET_NODE || type == VORN_MSG_SET_LOG_PATH) {
        unique_xml_doc doc;
        xmlNodePtr root;
        if (read_xml_file(VORN_WORK_CONF, &doc, &root) != 0 ||
            xmlChildElementCount(root) != kElements)
            abort();
    }
    reset_state();
    return 0;
}
