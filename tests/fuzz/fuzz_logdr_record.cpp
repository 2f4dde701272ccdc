// Fuzzes the logdr record decoder and what the logd worker does with a record
// it accepts: liblog's text or binary conversion and the "time" line format.
#include <log/event_tag_map.h>
#include <log/logprint.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/logd_reader.h"
#include "tests/fuzz/fuzz_util.h"

static AndroidLogFormat *g_format = nullptr;
static std::unique_ptr<log_msg> g_msg;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet();
    g_format = android_log_format_new();
    android_log_setPrintFormat(g_format, FORMAT_TIME);
    g_msg = std::make_unique<log_msg>();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> rec(data, data + size);  // exact size: over-reads are caught
    log_msg &msg = *g_msg;
    int n = vorn_logdr_decode(rec.data(), rec.size(), &msg);
    if (n < 0)
        return 0;
    if (n != static_cast<int>(msg.entry.hdr_size + msg.entry.len) || msg.buf[n] != 0)
        abort();
    AndroidLogEntry entry;
    char convert[1024];
    int ret = msg.entry.lid == LOG_ID_EVENTS
                  ? android_log_processBinaryLogBuffer(&msg.entry, &entry, nullptr, convert,
                                                       sizeof convert)
                  : android_log_processLogBuffer(&msg.entry, &entry);
    if (ret < 0)
        return 0;
    char line[512];
    size_t len = 0;
    char *out = android_log_formatLogLine(g_format, line, sizeof line, &entry, &len);
    if (out != line)
        free(out);
    return 0;
}
