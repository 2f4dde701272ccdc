// Programming the trace blocks: the mask file replayed through the Debug
// Agent, and the reset that switches the trace sources off.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstdio>

#include "agent/dagt.h"
#include "agent/dagt_cmds.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"
#include "qdss/qdss.h"
#include "qmi/qmi_client.h"

namespace {

constexpr size_t kLineLen = 256;

// Reads one line into line (kLineLen bytes, always terminated), keeping its
// newline. A longer line is cut and the rest of it skipped: its tail is not a
// line of its own (the tail of a long comment would otherwise run). NUL bytes
// are kept like any other. False at end of file.
bool read_mask_line(FILE *f, char (&line)[kLineLen]) {
    size_t n = 0;
    bool any = false;
    int c;
    while ((c = getc_unlocked(f)) != EOF) {
        any = true;
        if (n < kLineLen - 1)
            line[n++] = static_cast<char>(c);
        if (c == '\n')
            break;
    }
    line[n] = '\0';
    return any;
}

// Runs the state query; when the answer is "enable", runs the switch-off.
// 0, or the status of the command that failed.
int switch_off_if_on(const char *query, const char *off) {
    char line[kLineLen];
    dagt_result result{};
    snprintf(line, sizeof line, "%s", query);
    if (uint32_t rc = dagt_execute(line, &result); rc != 0)
        return static_cast<int>(rc);
    if (strcasecmp(result.text, "enable") != 0)
        return 0;
    snprintf(line, sizeof line, "%s", off);
    return static_cast<int>(dagt_execute(line, &result));
}

}  // namespace

int qdss_configure(const char *mask_path) {
    VLOGD("QDSS : configure\n");
    if (mask_path == nullptr || mask_path[0] == '\0') {
        VLOGE("%s: No mask file\n", "qdss_configure");
        return -1;
    }
    // Only a regular file: a FIFO would hold the thread and /dev/zero never ends.
    unique_fd fd(open(vorn_path(mask_path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st;
    if (!fd.valid() || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        VLOGD("Failed to open file %s\n", mask_path);
        return -1;
    }
    unique_file f(fdopen(fd.get(), "r"));
    if (!f) {
        VLOGD("Failed to open file %s\n", mask_path);
        return -1;
    }
    fd.release();

    // The whole file and the release after it, with no other agent line between.
    auto serialized = dagt_serialize();
    char line[kLineLen];
    while (read_mask_line(f.get(), line)) {
        if (line[0] == '#')
            continue;
        dagt_result result{};
        dagt_execute(line, &result);
    }
    f.reset();
    qmi_qdss_client_release();
    return 0;
}

int qdss_reset() {
    auto serialized = dagt_serialize();
    if (int rc = switch_off_if_on("stm get state", "stm disable"); rc != 0)
        return rc;
    int32_t cpus = dagt_get_cpu_count();
    for (int32_t i = 0; i < cpus; i++) {
        char query[kLineLen];
        char off[kLineLen];
        snprintf(query, sizeof query, "etm apps get state etm_name etm%01d", i);
        snprintf(off, sizeof off, "etm apps disable etm_name etm%01d", i);
        if (int rc = switch_off_if_on(query, off); rc != 0)
            return rc;
    }
    return switch_off_if_on("hwe get state", "hwe disable");
}
