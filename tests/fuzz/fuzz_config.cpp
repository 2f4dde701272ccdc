// Fuzzes the configuration reader: the input is the system configuration file
// of an empty device root; the working copy is chosen, reverted and loaded
// into the node table exactly as at start-up (without starting workers).
#include <libxml/tree.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/config.h"
#include "core/gbl_config.h"
#include "core/node.h"
#include "core/node_ops.h"
#include "core/node_table.h"
#include "platform/root.h"
#include "tests/fuzz/fuzz_util.h"

static std::string g_root;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_root = fuzz_temp_dir("config");
    std::filesystem::create_directories(g_root + "/etc");
    std::filesystem::create_directories(g_root + "/data");
    vorn_set_root(g_root.c_str());
    // Rows of each kind the daemon's register table has; nothing runs.
    static const vorn_node_ops rows[] = {
        {"ssr", check_dump_ops, set_node_state, set_node_state, nullptr},
        {"DynamicDebug", check_switch_ops, set_node_state, set_node_state, nullptr},
        {"Default", check_capture_ops, set_node_state, set_node_state, nullptr},
    };
    vorn_set_register_table(rows, sizeof rows / sizeof rows[0]);
    fuzz_quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::ofstream(g_root + "/etc/vorn-conf.xml", std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    std::filesystem::remove(g_root + "/data/vorn-conf.xml");
    int n = vorn_config_choose();
    if (n > 0) {
        vornd_load_nodes(n, false);
        if (strnlen(gbl_config.log_path, sizeof gbl_config.log_path) >= sizeof gbl_config.log_path)
            abort();
        for (int i = 1; i < vorn_node_count; i++) {
            if (vorn_nodes[i].ops == nullptr || strnlen(vorn_nodes[i].logname, 16) == 16 ||
                strnlen(vorn_nodes[i].mask, 100) == 100)
                abort();
        }
    }
    vornd_free_nodes();
    if (vorn_conf_doc)
        xmlFreeDoc(vorn_conf_doc);
    vorn_conf_doc = nullptr;
    vorn_conf_root = nullptr;
    return 0;
}
