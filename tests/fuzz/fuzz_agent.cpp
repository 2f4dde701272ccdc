// Fuzzes the Debug Agent: each input is one command line, run against a
// temporary device root that holds the CoreSight, CPU and tracing files of
// every command family.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/dagt.h"
#include "platform/root.h"
#include "tests/fuzz/fuzz_util.h"

static std::string g_root;

static void put(const std::string &device_path, const std::string &content = "0") {
    std::filesystem::path p = g_root + device_path;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p) << content;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_root = fuzz_temp_dir("agent");
    vorn_set_root(g_root.c_str());
    atexit([] {
        std::error_code ec;
        std::filesystem::remove_all(g_root, ec);
    });
    fuzz_quiet();

    const std::string cs = "/sys/bus/coresight/devices/coresight-";
    for (const char *dev :
         {"stm/enable", "stm/hwevent_enable", "hwevent/enable", "hwevent/setreg",
          "tmc-etf/curr_sink", "tmc-etr/curr_sink", "tmc-etr/out_mode", "tmc-etr/byte_cntr_value",
          "tpiu/curr_sink", "tpiu/out_mode", "tpiu/set", "modem-etm0/enable", "cti0/reset",
          "cti0/map_trigin", "cti0/show_trigout", "cti-cpu1/reset"})
        put(cs + dev);
    for (std::string cpu : {"0", "1", "2", "3"}) {
        put(cs + "etm" + cpu + "/enable");
        put(cs + "etm" + cpu + "/cpu", cpu);
        put("/sys/devices/system/cpu/cpu" + cpu + "/online", "1");
    }
    put("/sys/devices/system/cpu/present", "0-3\n");
    put("/sys/kernel/debug/tracing/tracing_on");
    put("/sys/kernel/debug/tracing/events/sched/enable");
    put("/system/build.prop", "ro.board.platform=msm8916\nro.product.board=fuzz\n");
    // Plain files where the QMI sockets would be: every connection fails at
    // once instead of waiting for a QRTR service.
    for (int i = 0; i <= 10; i++)
        put("/dev/qrtr/51." + std::to_string(i), "");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1024)
        return 0;
    // Some words are pasted into echo command lines as typed; lines that could
    // make the shell run or redirect something else are not fuzzed.
    for (size_t i = 0; i < size && data[i] != '\0'; i++) {
        if (strchr("$`;&|<>()\\", data[i]) != nullptr)
            return 0;
    }
    std::vector<char> line(data, data + size);
    line.push_back('\0');
    dagt_result result;
    memset(&result, 0x5a, sizeof result);
    uint32_t code = dagt_execute(line.data(), &result);
    // Comments, long and empty lines leave the record untouched.
    if (code == 1 || code == 100 || code == 102)
        return 0;
    if ((code != 104 && code != static_cast<uint32_t>(result.code)) ||
        strnlen(result.text, sizeof result.text) == sizeof result.text ||
        strnlen(dagt_summary, DAGT_SUMMARY_LEN) == DAGT_SUMMARY_LEN)
        abort();
    return 0;
}
