// QDSS trace on a simulated phone: the trace device streams into rotated
// files, and an overflow (one read failing with EIO) costs a reset, a replay
// of the mask file and a reopen, not the capture or the current file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "tests/support/sim_fixture.h"
#include "tests/support/wait.h"

namespace {

constexpr std::uintmax_t kBudget = 1048576;  // files roll over past a tenth of it

// A closed file carries a second time suffix: "qdss.<open>[_NNNN].<close>".
bool is_closed(const std::string &path) {
    std::string name = path.substr(path.rfind('/') + 1);
    return std::count(name.begin(), name.end(), '.') == 2;
}

TEST(SimQdssTest, TraceStreamsIntoRotatedFilesAndSurvivesAnOverflow) {
    SimDaemonFixture d;
    if (!d.sim_up())
        GTEST_SKIP() << d.skip_reason();
    d.write_config(
        "<vornconf version=\"1.0\">\n"
        "  <global enable=\"1\" log_path=\"/sdcard/logs/\"/>\n"
        "  <QDSS logname=\"QDSS\" enable=\"1\" logtype=\"0\" size=\"" +
        std::to_string(kBudget) +
        "\" log_provider=\"/dev/byte-cntr\" log_filepath=\"QDSS/qdss\" "
        "mask=\"/data/qdss.mask\"/>\n"
        "</vornconf>\n");
    ASSERT_TRUE(d.start()) << d.log();
    ASSERT_FALSE(d.wait_for_log("create seperate read write thread for QDSS").empty()) << d.log();
    auto files = [&] { return d.files("/sdcard/logs/QDSS", "qdss."); };

    ASSERT_EQ(d.vornsim({"trace", d.path(), "--rate", "1"}).exit_status, 0);
    ASSERT_TRUE(wait_until([&] { return files().size() >= 3; }, 15000, 100)) << d.log();
    // The mask file programmed the blocks, the modem's part through QMI.
    std::string status = d.vornsim({"status", d.path()}).out;
    EXPECT_NE(status.find("qmi 2 requests "), std::string::npos) << status;
    EXPECT_EQ(status.find("qmi 2 requests 0\n"), std::string::npos) << status;

    size_t mark = d.log_mark();
    std::vector<std::string> before = files();
    ASSERT_EQ(d.vornsim({"overflow", d.path()}).exit_status, 0);
    ASSERT_FALSE(d.wait_for_log("byte count overflow, reopen log provider", 10000, mark).empty())
        << d.log(mark);
    EXPECT_FALSE(d.wait_for_log("succeed to open device node /dev/byte-cntr", 5000, mark).empty());
    // Capture goes on: files newer than any before the overflow fill up and
    // roll over in their turn.
    std::string newest_before = *std::max_element(before.begin(), before.end());
    EXPECT_TRUE(wait_until(
        [&] {
            int closed_after = 0;
            for (const std::string &f : files())
                closed_after += f > newest_before && is_closed(f) ? 1 : 0;
            return closed_after >= 2;
        },
        10000, 100))
        << d.log(mark);
    // No file was closed early: the overflow did not start a new one, and
    // every roll-over happened past the budget's tenth. (Pruning may remove
    // the oldest file between the listing and its size.)
    for (const std::string &f : files()) {
        std::error_code gone;
        std::uintmax_t size = std::filesystem::file_size(f, gone);
        if (is_closed(f) && !gone) {
            EXPECT_GT(size, kBudget / 10) << f;
        }
    }
    EXPECT_EQ(d.log().find("Failed to write out to log file"), std::string::npos) << d.log(mark);
    // vornctl shows the node like any other.
    EXPECT_NE(d.vornctl({"status"}).out.find("QDSS"), std::string::npos);

    // The trace device goes away mid-stream: the reader gives up on it and
    // waits for the next command, without reading on in a loop; the daemon
    // serves on.
    mark = d.log_mark();
    ASSERT_EQ(d.vornsim({"down", d.path()}).exit_status, 0);
    ASSERT_FALSE(d.wait_for_log("Failed to read from dev node", 10000, mark).empty())
        << d.log(mark);
    usleep(1500 * 1000);
    EXPECT_LE(d.log_lines("Failed to read from dev node", mark).size(), 2u) << d.log(mark);
    EXPECT_TRUE(d.alive());
    EXPECT_EQ(d.vornctl({"query", "QDSS"}).exit_status, 0);
}

}  // namespace
