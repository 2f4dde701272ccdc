// A tester's day on a simulated phone, one daemon start: a modem crash yields
// its ramdump and the trace-sink dumps, an external modem's removal and
// return copy its dump folder, a GPU hang yields the snapshot and the "ZIP
// GPU" notice (a notification with the same timestamp yields nothing),
// remote trace reaches the modem's QMI service, and an app's log line
// reaches the logd capture file; and, on an older phone, the kernel logger
// devices and a collector facing eleven ramdump devices.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "sim/blob_device.h"
#include "sim/phone.h"
#include "sim/ramdump_device.h"
#include "tests/support/sim_fixture.h"
#include "tests/support/wait.h"

namespace {

const char kNodes[] =
    "<vornconf version=\"1.0\">\n"
    "  <global enable=\"1\" size=\"10485760\" log_path=\"/sdcard/logs/\"/>\n"
    "  <ssr logname=\"ssr\" enable=\"1\" logtype=\"32\"/>\n"
    "  <GPU logname=\"GPU\" enable=\"1\" logtype=\"32\" log_filepath=\"GPU/dump\"/>\n"
    "  <AdbMain logname=\"AdbMain\" enable=\"1\" logtype=\"2\" size=\"1048576\" "
    "log_provider=\"main;system\" log_filepath=\"Adb/main\"/>\n"
    "</vornconf>\n";

TEST(SimCrashTest, CrashesHangsAndLogsOfOneSession) {
    SimDaemonFixture d;
    if (!d.sim_up())
        GTEST_SKIP() << d.skip_reason();
    d.write_config(kNodes);
    // Both sinks in use, so a crash saves both.
    d.write("/sys/bus/coresight/devices/coresight-tmc-etr/curr_sink", "1\n");
    d.write("/tombstones/mdm/mdm_ramdump.bin", "external modem dump\n");
    ASSERT_TRUE(d.start()) << d.log();
    ASSERT_FALSE(d.wait_for_log("subsystem ramdump start").empty()) << d.log();
    ASSERT_FALSE(d.wait_for_log("gpu: start to poll").empty()) << d.log();

    // Modem crash: the ELF dump, then the ETF and ETR contents.
    const std::string dumps = "/sdcard/logs/subsystem_ramdump";
    ProcessResult r = d.vornsim({"crash", d.path(), "modem", "--size", "300000", "--elf"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    ASSERT_FALSE(d.wait_for_log("qdss coresight-tmc-etr ramdump saved successfully").empty())
        << d.log();
    auto modem = d.files(dumps, "ramdump_modem-");
    ASSERT_EQ(modem.size(), 1u);
    EXPECT_EQ(modem[0].substr(modem[0].size() - 4), ".elf");
    EXPECT_EQ(read_file(modem[0]), ramdump_bytes("modem", 300000, true));
    auto etf = d.files(dumps, "coresight-tmc-etf-");
    auto etr = d.files(dumps, "coresight-tmc-etr-");
    ASSERT_EQ(etf.size(), 1u);
    ASSERT_EQ(etr.size(), 1u);
    EXPECT_EQ(read_file(etf[0]), trace_bytes(65536));
    EXPECT_EQ(std::filesystem::file_size(etr[0]), 1048576u);
    EXPECT_EQ(std::filesystem::status(modem[0]).permissions(), std::filesystem::perms::owner_read);

    // A shared-memory dump is saved but wakes no sink dump.
    r = d.vornsim({"crash", d.path(), "smem", "--size", "4096"});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    ASSERT_TRUE(wait_until([&] { return d.files(dumps, "ramdump_smem-").size() == 1; }, 10000, 50));
    usleep(1000 * 1000);  // time enough for a sink dump that must not come
    EXPECT_EQ(d.files(dumps, "coresight-tmc-etf-").size(), 1u);

    // The external modem goes away and comes back: its folder is copied.
    ASSERT_EQ(d.vornsim({"uevent", d.path(), "remove"}).exit_status, 0);
    ASSERT_EQ(d.vornsim({"uevent", d.path(), "add"}).exit_status, 0);
    ASSERT_FALSE(d.wait_for_log("MDM ramdump completed").empty()) << d.log();
    auto mdm = d.files(dumps, "mdm-");
    ASSERT_EQ(mdm.size(), 1u);
    EXPECT_EQ(read_file(mdm[0] + "/mdm_ramdump.bin"), "external modem dump\n");

    // GPU hang: the snapshot file and its notice.
    ASSERT_EQ(d.vornsim({"gpu-hang", d.path()}).exit_status, 0);
    std::string notice = d.wait_for_broadcast("ZIP GPU");
    ASSERT_FALSE(notice.empty());
    auto snaps = d.files("/sdcard/logs/GPU/dump", "dump_1.bin.");
    ASSERT_EQ(snaps.size(), 1u);
    EXPECT_EQ(read_file(snaps[0]), gpu_snapshot_bytes(1));
    EXPECT_NE(notice.find("--ei result 1 --es para ZIP GPU /sdcard/logs//GPU/dump/dump_1.bin."),
              std::string::npos)
        << notice;

    // kgsl notifies again with the same timestamp: the monitor wakes, finds
    // nothing new and polls again; no snapshot, no notice.
    size_t mark = d.log_mark();
    size_t notices = d.broadcasts().size();
    ASSERT_EQ(d.vornsim({"gpu-hang", d.path(), "--same"}).exit_status, 0);
    ASSERT_FALSE(d.wait_for_log("gpu: start to poll", 10000, mark).empty()) << d.log(mark);
    EXPECT_EQ(d.files("/sdcard/logs/GPU/dump", "dump_").size(), 1u);
    EXPECT_EQ(d.broadcasts().size(), notices);
    EXPECT_TRUE(d.log_lines("hang detected", mark).empty()) << d.log(mark);

    // Switched off, the GPU node lets a hang pass without a snapshot.
    ASSERT_EQ(d.vornctl({"disable", "GPU"}).exit_status, 0);
    ASSERT_TRUE(wait_until(
        [&] {
            return d.working_xml().find("<GPU logname=\"GPU\" enable=\"0\"") != std::string::npos;
        },
        10000, 50))
        << d.working_xml();
    ASSERT_EQ(d.vornsim({"gpu-hang", d.path()}).exit_status, 0);
    usleep(1000 * 1000);
    EXPECT_EQ(d.files("/sdcard/logs/GPU/dump", "dump_").size(), 1u);

    // Remote trace goes to the modem's QDSS service, which records it.
    ProcessResult agent = d.vornctl({"agent", "swt", "modem", "enable", "diag"});
    ASSERT_EQ(agent.exit_status, 0) << agent.err;
    ASSERT_FALSE(d.wait_for_log("Success to run command: swt->modem->enable->diag").empty());
    std::string status = d.vornsim({"status", d.path()}).out;
    EXPECT_NE(status.find("qmi 2 requests 1\n"), std::string::npos) << status;
    EXPECT_NE(status.find("qmi 3 requests 0\n"), std::string::npos) << status;

    // An app logs through logd; the capture file shows the line once the
    // writer's stream buffer (a few KiB) has been filled and flushed.
    ASSERT_EQ(d.vornsim({"log", d.path(), "main", "I", "SimApp", "hello from the sim"}).exit_status,
              0);
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(d.vornsim({"log", d.path(), "system", "W", "Filler", std::string(1000, 'f')})
                      .exit_status,
                  0);
    std::string text, adb = d.at("/sdcard/logs/Adb");
    ASSERT_TRUE(wait_until(
        [&] { return (text = dir_contents(adb)).find("hello from the sim") != std::string::npos; },
        10000, 100))
        << text << d.log();
    EXPECT_NE(text.find("I/SimApp"), std::string::npos) << text;
}

}  // namespace

namespace {

// An older phone, one daemon start: before API level 20 the Android buffers
// are kernel logger devices, whose reader takes one entry per read and
// formats it; and with eleven ramdump devices the collector gives up, as it
// keeps at most ten.
TEST(SimOldPhoneTest, LoggerEntriesBecomeLinesAndElevenRamdumpsAreTooMany) {
    SimDaemonFixture d;
    ASSERT_EQ(
        d.vornsim({"create", d.path(), "--platform", "msm8974", "--ramdumps", "11"}).exit_status,
        0);
    if (!d.sim_up())
        GTEST_SKIP() << d.skip_reason();
    d.write_config(
        "<vornconf version=\"1.0\">\n"
        "  <global enable=\"1\" log_path=\"/sdcard/logs/\"/>\n"
        "  <ssr logname=\"ssr\" enable=\"1\" logtype=\"32\"/>\n"
        "  <AdbRadio logname=\"AdbRadio\" enable=\"1\" logtype=\"2\" size=\"1048576\" "
        "log_provider=\"/dev/log/radio\" log_filepath=\"Adb/radio\"/>\n"
        "</vornconf>\n");
    ASSERT_EQ(d.vornsim({"log", d.path(), "radio", "W", "RILJ", "first\nsecond"}).exit_status, 0);
    ASSERT_TRUE(d.start()) << d.log();
    ASSERT_EQ(d.vornsim({"log", d.path(), "radio", "E", "RILJ", "third"}).exit_status, 0);
    std::string text, adb = d.at("/sdcard/logs/Adb");
    ASSERT_TRUE(wait_until(
        [&] { return (text = dir_contents(adb)).find("third") != std::string::npos; }, 10000, 100))
        << text << d.log();
    // One header per line of a message, in the order written.
    size_t first = text.find("W/RILJ    (");
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_NE(text.find("): first\n"), std::string::npos) << text;
    EXPECT_NE(text.find("W/RILJ    (", first + 1), std::string::npos) << text;
    EXPECT_LT(text.find("): second\n"), text.find("E/RILJ    (")) << text;

    size_t next = 0;
    ASSERT_FALSE(d.wait_for_log("Exceed max pil number", 10000, 0, &next).empty()) << d.log();
    EXPECT_FALSE(d.wait_for_log("Failed to find pil ramdump", 10000, next).empty()) << d.log();
    EXPECT_TRUE(d.log_lines("subsystem ramdump start").empty()) << d.log();
}

}  // namespace
