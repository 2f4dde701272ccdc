// Fuzzes the Debug Agent: each input is one command line, run against a
// temporary device root that holds the CoreSight, CPU and tracing files of
// every command family.
#include <android/log.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/dagt.h"
#include "platform/root.h"

namespace {

std::string g_root;

void put(const std::string &device_path, const char *content) {
    std::filesystem::path p = g_root + device_path;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p) << content;
}

void silent_logger(const struct __android_logger_data *, const char *) {}

void remove_root() {
    std::error_code ec;
    std::filesystem::remove_all(g_root, ec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char tmpl[] = "/tmp/vorn-fuzz-agent-XXXXXX";
    g_root = mkdtemp(tmpl);
    vorn_set_root(g_root.c_str());
    atexit(remove_root);
    __android_log_set_logger(silent_logger);

    const std::string cs = "/sys/bus/coresight/devices/";
    for (const char *dev :
         {"coresight-stm/enable", "coresight-stm/hwevent_enable", "coresight-hwevent/enable",
          "coresight-hwevent/setreg", "coresight-tmc-etf/curr_sink", "coresight-tmc-etr/curr_sink",
          "coresight-tmc-etr/out_mode", "coresight-tmc-etr/byte_cntr_value",
          "coresight-tpiu/curr_sink", "coresight-tpiu/out_mode", "coresight-tpiu/set",
          "coresight-modem-etm0/enable", "coresight-cti0/reset", "coresight-cti0/map_trigin",
          "coresight-cti0/show_trigout", "coresight-cti-cpu1/reset"})
        put(cs + dev, "0");
    for (int cpu = 0; cpu < 4; cpu++) {
        put(cs + "coresight-etm" + std::to_string(cpu) + "/enable", "0");
        put(cs + "coresight-etm" + std::to_string(cpu) + "/cpu", std::to_string(cpu).c_str());
        put("/sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/online", "1");
    }
    put("/sys/devices/system/cpu/present", "0-3\n");
    put("/sys/kernel/debug/tracing/tracing_on", "0");
    put("/sys/kernel/debug/tracing/events/sched/enable", "0");
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
    if (code != 104 && code != static_cast<uint32_t>(result.code))
        abort();
    if (strnlen(result.text, sizeof result.text) == sizeof result.text)
        abort();
    if (strnlen(dagt_summary, DAGT_SUMMARY_LEN) == DAGT_SUMMARY_LEN)
        abort();
    return 0;
}
