// vornsim as a user runs it: the device root it creates, up and down with
// their faults (twice, never up, after the server died), injections into a
// root that is not up, a phone with more ramdump devices, and run stopped by
// SIGTERM. The diag_bridge uevents reach the daemon in e2e sim_crash_test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "sim/ddr_dump.h"
#include "sim/devfs.h"
#include "sim/phone.h"
#include "sim/sim_server.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

namespace {

ProcessResult vornsim(const std::vector<std::string> &args) {
    std::vector<std::string> argv = {build_binary("vornsim")};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_process(argv, 20000);
}

TEST(VornsimCliTest, CreateMakesARootForThePlatform) {
    TempRoot r;
    r.write("/proc/1/status", "a folder older roots had\n");
    ProcessResult res = vornsim({"create", r.path(), "--platform", "msm8974", "--cpus", "2"});
    ASSERT_EQ(res.exit_status, 0) << res.err;
    // The host's processes, for the exec worker's scan of its command's children.
    EXPECT_NE(r.read("/proc/" + std::to_string(getpid()) + "/status").find("PPid:"),
              std::string::npos);
    std::string conf = r.read("/etc/vorn-conf.xml");
    for (const char *row :
         {"ssr", "GPU", "DynamicDebug", "Bluetooth", "AdbMain", "AdbRadio", "AdbEvents", "Dmesg",
          "RPM", "QDSS", "QXDM", "WlanTcp", "DataTcp", "DumpParser", "Default"})
        EXPECT_NE(conf.find(std::string("logname=\"") + row + "\""), std::string::npos) << row;
    // API level 19: the Android buffers are the kernel's logger devices.
    EXPECT_NE(conf.find("log_provider=\"/dev/log/main\""), std::string::npos);
    EXPECT_NE(r.read("/system/build.prop").find("ro.build.version.sdk=19"), std::string::npos);
    EXPECT_EQ(r.read("/sys/devices/system/cpu/present"), "0-1\n");
    EXPECT_TRUE(r.exists("/sys/bus/coresight/devices/coresight-etm1/cpu"));
    EXPECT_FALSE(r.exists("/sys/bus/coresight/devices/coresight-etm2"));
    EXPECT_EQ(r.read("/sys/bus/coresight/devices/coresight-tmc-etr/out_mode"), "mem\n");

    // The stand-ins record their arguments, wherever the root is.
    ProcessResult stop = run_process({r.at("/system/bin/stop"), "mpdecision"}, 5000);
    EXPECT_EQ(stop.exit_status, 0);
    EXPECT_EQ(r.read("/data/sim/stop.log"), "mpdecision\n");

    ASSERT_EQ(vornsim({"create", r.path(), "--platform", "msm8916"}).exit_status, 0);
    EXPECT_NE(r.read("/etc/vorn-conf.xml").find("log_provider=\"main;system\""), std::string::npos);
    EXPECT_EQ(vornsim({"create", r.path(), "--cpus", "0"}).exit_status, 2);
    EXPECT_EQ(vornsim({"create", r.path(), "--platform", "nokia3310"}).exit_status, 2);
    EXPECT_EQ(vornsim({"uevent", r.path(), "change"}).exit_status, 2);
}

TEST(VornsimCliTest, UpAndDownSurviveRepeatsAndADeadServer) {
    std::string why;
    if (!fuse_usable(&why))
        GTEST_SKIP() << "FUSE cannot mount here: " << why;
    TempRoot r;
    ASSERT_EQ(vornsim({"up", r.path()}).exit_status, 1);  // no device root yet
    ASSERT_EQ(vornsim({"create", r.path()}).exit_status, 0);

    ProcessResult down = vornsim({"down", r.path()});
    EXPECT_EQ(down.exit_status, 0);
    EXPECT_NE(down.out.find("was not up"), std::string::npos);
    ProcessResult crash = vornsim({"crash", r.path(), "modem"});
    EXPECT_EQ(crash.exit_status, 1);
    EXPECT_NE(crash.err.find("is not up"), std::string::npos);

    ProcessResult up = vornsim({"up", r.path()});
    ASSERT_EQ(up.exit_status, 0) << up.err;
    EXPECT_TRUE(is_mount_point(sim_mount_dir(r.path())));
    EXPECT_EQ(vornsim({"up", r.path()}).exit_status, 1);  // already up
    EXPECT_EQ(vornsim({"crash", r.path(), "modem", "--size", "10", "--elf"}).exit_status, 0);
    EXPECT_NE(vornsim({"status", r.path()}).out.find("ramdump_modem pending 1"), std::string::npos);

    // The server dies: its mount and links stay until down clears them.
    pid_t pid = sim_server_pid(r.path());
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);
    ASSERT_TRUE(wait_until([&] { return !sim_process_running(pid); }, 5000));
    EXPECT_TRUE(is_mount_point(sim_mount_dir(r.path())));
    down = vornsim({"down", r.path()});
    EXPECT_EQ(down.exit_status, 0);
    EXPECT_NE(down.out.find("died"), std::string::npos) << down.out;
    EXPECT_FALSE(is_mount_point(sim_mount_dir(r.path())));
    EXPECT_FALSE(r.exists("/dev/ramdump_modem"));

    // Up again after that, then down twice.
    ASSERT_EQ(vornsim({"up", r.path()}).exit_status, 0);
    EXPECT_NE(vornsim({"down", r.path()}).out.find("is down"), std::string::npos);
    EXPECT_NE(r.read("/data/sim/last-status.txt").find("qmi 6 requests 0"), std::string::npos);
    EXPECT_NE(vornsim({"down", r.path()}).out.find("was not up"), std::string::npos);
    EXPECT_FALSE(is_mount_point(sim_mount_dir(r.path())));

    // run: the phone goes down with the daemon, whose status it returns.
    ProcessResult run = vornsim({"run", r.path(), "--vornd", "/bin/false"});
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_NE(run.err.find("is down"), std::string::npos) << run.err;
    EXPECT_FALSE(is_mount_point(sim_mount_dir(r.path())));
    EXPECT_LT(sim_server_pid(r.path()), 0);
}

TEST(VornsimCliTest, ElevenRamdumpDevicesComeAndGoWithThePhone) {
    std::string why;
    if (!fuse_usable(&why))
        GTEST_SKIP() << "FUSE cannot mount here: " << why;
    TempRoot r;
    EXPECT_EQ(vornsim({"create", r.path(), "--ramdumps", "0"}).exit_status, 2);
    EXPECT_EQ(vornsim({"create", r.path(), "--ramdumps", "17"}).exit_status, 2);
    ASSERT_EQ(vornsim({"create", r.path(), "--ramdumps", "11"}).exit_status, 0);
    ASSERT_EQ(vornsim({"up", r.path()}).exit_status, 0);
    // The five of every phone, then cdsp, slpi, spss, ipa_fws, wcnss, lpass.
    for (const char *s : {"adsp", "smem", "cdsp", "lpass"})
        EXPECT_TRUE(r.exists(std::string("/dev/ramdump_") + s)) << s;
    EXPECT_FALSE(r.exists("/dev/ramdump_gss"));
    EXPECT_EQ(vornsim({"crash", r.path(), "lpass", "--size", "10"}).exit_status, 0);
    ProcessResult none = vornsim({"crash", r.path(), "gss"});
    EXPECT_EQ(none.exit_status, 1);
    EXPECT_NE(none.err.find("rejected"), std::string::npos) << none.err;
    EXPECT_NE(vornsim({"status", r.path()}).out.find("ramdump_lpass pending 1"), std::string::npos);
    ASSERT_EQ(vornsim({"down", r.path()}).exit_status, 0);
    EXPECT_FALSE(r.exists("/dev/ramdump_lpass"));
    EXPECT_FALSE(r.exists("/dev/ramdump_adsp"));
}

// vornsim run passes SIGTERM on to the daemon whenever it comes, even while
// the phone is still coming up, and takes the phone down after it.
TEST(VornsimCliTest, SigtermStopsRunAtAnyMoment) {
    std::string why;
    if (!fuse_usable(&why))
        GTEST_SKIP() << "FUSE cannot mount here: " << why;
    TempRoot r;
    ASSERT_EQ(vornsim({"create", r.path()}).exit_status, 0);
    r.write("/stand-in", "#!/bin/sh\necho $$ > \"$(dirname \"$0\")/started\"\nexec sleep 60\n");
    chmod(r.at("/stand-in").c_str(), 0755);
    std::string bin = build_binary("vornsim");
    for (bool early : {true, false}) {
        unlink(r.at("/started").c_str());
        pid_t pid = fork();
        if (pid == 0) {
            int null = open("/dev/null", O_RDWR);
            dup2(null, 1);
            dup2(null, 2);
            execl(bin.c_str(), bin.c_str(), "run", r.path().c_str(), "--vornd",
                  r.at("/stand-in").c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        ASSERT_GT(pid, 0);
        if (!early)
            ASSERT_TRUE(wait_until([&] { return r.exists("/started"); }, 10000));
        else
            usleep(5000);  // started, the phone not yet up
        kill(pid, SIGTERM);
        int status = 0;
        bool ended = false;
        wait_until([&] { return ended = ended || waitpid(pid, &status, WNOHANG) == pid; }, 10000);
        if (!ended) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        EXPECT_TRUE(ended) << (early ? "early" : "late");
        EXPECT_FALSE(is_mount_point(sim_mount_dir(r.path())));
        EXPECT_LT(sim_server_pid(r.path()), 0);
        if (r.exists("/started")) {
            pid_t daemon = atoi(r.read("/started").c_str());
            EXPECT_TRUE(wait_until([&] { return kill(daemon, 0) != 0; }, 5000));
        }
        vornsim({"down", r.path()});
    }
}

TEST(DdrDumpTest, KernelLogLinesAndImageLimits) {
    // /dev/kmsg records: escapes decoded, dictionary lines skipped; other
    // lines taken whole at rising made-up times.
    std::vector<KmsgRecord> recs = parse_kmsg_lines(
        "6,1,1500,-;hello\\x0aworld\\\\x\n SUBSYSTEM=usb\nplain line\n"
        "4,2,2000,-;\\x1b[0m\n");
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].ts_ns, 1500000u);
    EXPECT_EQ(recs[0].text, "hello\nworld\\\\x");
    EXPECT_EQ(recs[1].text, "plain line");
    EXPECT_EQ(recs[2].ts_ns, 2000000u);
    EXPECT_EQ(recs[2].text, "\x1b[0m");

    TempRoot r;
    std::string err;
    EXPECT_FALSE(write_ddr_dump(r.at("/d1"), recs, 302, 64 << 20, &err));  // no dump table
    EXPECT_FALSE(write_ddr_dump(r.at("/d2"), recs, 610, 4096, &err));      // log past the image
    EXPECT_NE(err.find("too small"), std::string::npos) << err;
    r.write("/kmsg.txt", "6,1,1500,-;one\n");
    EXPECT_EQ(vornsim({"ddr-dump", r.at("/d3"), "--kmsg", r.at("/kmsg.txt")}).exit_status, 0);
    EXPECT_TRUE(r.exists("/d3/load.cmm"));
    EXPECT_EQ(vornsim({"ddr-dump", r.at("/d4"), "--bogus"}).exit_status, 2);
    EXPECT_EQ(
        vornsim({"ddr-dump", r.at("/d4"), "--from-dmesg", "--kmsg", r.at("/kmsg.txt")}).exit_status,
        2);
    EXPECT_EQ(vornsim({"ddr-dump", r.at("/d5"), "--kmsg", r.at("/missing")}).exit_status, 1);
}

}  // namespace
