// QDSS trace on a simulated phone: the trace device streams into rotated
// files, and an overflow (one read failing with EIO) costs a reset and a
// reopen, not the capture.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "tests/support/sim_fixture.h"
#include "tests/support/wait.h"

namespace {

long long total_size(const std::vector<std::string> &files) {
    long long sum = 0;
    for (const std::string &f : files) {
        struct stat st {};
        if (stat(f.c_str(), &st) == 0)
            sum += st.st_size;
    }
    return sum;
}

TEST(SimQdssTest, TraceStreamsIntoRotatedFilesAndSurvivesAnOverflow) {
    SimDaemonFixture d;
    if (!d.sim_up())
        GTEST_SKIP() << d.skip_reason();
    // Files roll over at a tenth of the size: every 100 KiB.
    d.write_config(
        "<vornconf version=\"1.0\">\n"
        "  <global enable=\"1\" log_path=\"/sdcard/logs/\"/>\n"
        "  <QDSS logname=\"QDSS\" enable=\"1\" logtype=\"0\" size=\"1048576\" "
        "log_provider=\"/dev/byte-cntr\" log_filepath=\"QDSS/qdss\" "
        "mask=\"/data/qdss.mask\"/>\n"
        "</vornconf>\n");
    ASSERT_TRUE(d.start()) << d.log();
    ASSERT_FALSE(d.wait_for_log("create seperate read write thread for QDSS").empty()) << d.log();
    if (!d.wait_for_log("QDSS capture is not built yet", 1000).empty())
        GTEST_SKIP() << "this daemon has no QDSS capture yet";

    ASSERT_EQ(d.vornsim({"trace", d.path(), "--rate", "1"}).exit_status, 0);
    ASSERT_TRUE(
        wait_until([&] { return d.files("/sdcard/logs/QDSS", "qdss.").size() >= 3; }, 15000, 100))
        << d.log();
    // The mask file programmed the blocks, the modem's part through QMI.
    std::string status = d.vornsim({"status", d.path()}).out;
    EXPECT_NE(status.find("qmi 2 requests "), std::string::npos) << status;
    EXPECT_EQ(status.find("qmi 2 requests 0\n"), std::string::npos) << status;

    size_t mark = d.log_mark();
    ASSERT_EQ(d.vornsim({"overflow", d.path()}).exit_status, 0);
    ASSERT_FALSE(d.wait_for_log("byte count overflow, reopen log provider", 10000, mark).empty())
        << d.log(mark);
    long long before = total_size(d.files("/sdcard/logs/QDSS", "qdss."));
    EXPECT_TRUE(wait_until(
        [&] { return total_size(d.files("/sdcard/logs/QDSS", "qdss.")) > before + 200000; }, 10000,
        100))
        << d.log(mark);
    ASSERT_EQ(d.vornsim({"trace", d.path(), "--rate", "0"}).exit_status, 0);
}

}  // namespace
