// The crash reason in an extracted kernel log.
#include <cstring>

#include "dumpparser/dp_log.h"
#include "dumpparser/dump_io.h"
#include "dumpparser/dumpparser.h"
#include "platform/root.h"

char dumpparser_reasons[DUMPPARSER_REASONS][40] = {
    "subsys-restart: Resetting the SoC -",
    "Kernel panic - not syncing:",
    "Watchdog bark! Now",
};

namespace {

const char kCrashed[] = "crashed";

// "subsys-restart: Resetting the SoC - modem crashed." names the subsystem
// between the pattern and " crashed".
bool subsystem_reason(char *line, char *reason) {
    const char *pattern = dumpparser_reasons[DUMPPARSER_SSR_RESET];
    char *hit = strstr(line, pattern);
    if (hit == nullptr)
        return false;
    char *after = hit + strlen(pattern);
    char *crashed = strstr(after, kCrashed);
    if (crashed == nullptr)
        return false;
    // The name starts after the blank behind the pattern and ends at the blank
    // before "crashed"; with nothing in between it is empty.
    char *name = after + 1;
    crashed[-1] = '\0';
    snprintf(reason, DUMPPARSER_REASON_LEN, "%s", name < crashed ? name : "");
    DPLOGI("%s: get_reason: %s", DP, reason);
    return true;
}

}  // namespace

void get_reason(const char *file, char *reason) {
    unique_file f(fopen(vorn_path(file).c_str(), "re"));
    if (!f) {
        DPLOGE("Failed to open %s!", file);
        return;
    }
    char line[512];
    while (fgets(line, sizeof(line), f.get()) != nullptr) {
        if (subsystem_reason(line, reason))
            return;
        if (strstr(line, dumpparser_reasons[DUMPPARSER_KERNEL_PANIC]) != nullptr ||
            strstr(line, dumpparser_reasons[DUMPPARSER_WDOG_BARK]) != nullptr) {
            DPLOGI("%s: get_reason: AP", DP);
            snprintf(reason, DUMPPARSER_REASON_LEN, "%s", "AP");
            return;
        }
    }
}
