// Fuzzes the kernel-logger entry formatter: the first byte picks a text or an
// events node, the rest is the entry exactly as a read returned it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "capture/logger_entry.h"
#include "core/gbl_config.h"
#include "platform/root.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

vorn_node g_text{};
vorn_node g_events{};
vorn_log_file g_file{};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    std::string root = fuzz_temp_dir("entry");
    std::filesystem::create_directories(root + "/system/etc");
    std::ofstream(root + "/system/etc/event-log-tags") << "42 answer (value|1)\n"
                                                       << "2718 boot (time|2|3),(n|1|5)\n";
    vorn_set_root(root.c_str());
    fuzz_quiet();
    gbl_config.size = 0;  // no budget: writes never roll over
    snprintf(g_text.logname, sizeof g_text.logname, "AdbMain");
    snprintf(g_events.logname, sizeof g_events.logname, "AdbEvents");
    g_file.fp = fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    vorn_node *node = (data[0] & 1) ? &g_events : &g_text;
    // An exact-size heap copy: the formatter writes into the entry, and any
    // read past its end is caught.
    std::vector<char> entry(data + 1, data + size);
    char path[VORN_PATH_MAX] = "/dev/null";
    format_logger_entry(&g_file, entry.data(), static_cast<int>(entry.size()), path, node);
    return 0;
}
