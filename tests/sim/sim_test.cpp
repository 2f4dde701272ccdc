// The simulated phone. Its ramdump devices as a reader sees them through the
// mount: blocking reads, end of file, poll readiness, EINTR on a signal; the
// fake logd with several readers at once, as the phone's logd nodes connect:
// each gets the entries of its own buffers, and entries queued while nobody
// reads wait for the first reader. vornsim as a user runs it: the device root
// it creates, up and down with their faults (twice, never up, after the server
// died), injections into a root that is not up, a phone with more ramdump
// devices, and run stopped by SIGTERM. The trace device's rate and overflow,
// the GPU hang's poll wake-ups, the logger devices' one entry per read and the
// diag_bridge uevents are read by the daemon itself in tests/e2e/sim_*_test.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "platform/io.h"
#include "sim/ddr_dump.h"
#include "sim/devfs.h"
#include "sim/device_root.h"
#include "sim/fake_logd.h"
#include "sim/phone.h"
#include "sim/ramdump_device.h"
#include "sim/sim_server.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

namespace {

class DevicesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string why;
        if (!fuse_usable(&why))
            GTEST_SKIP() << "FUSE cannot mount here: " << why;
        std::string err;
        ASSERT_TRUE(create_device_root(root_.path(), DeviceRootOptions{}, &err)) << err;
        phone_ = std::make_unique<SimPhone>(root_.path());
        if (!phone_->up(&err))
            GTEST_SKIP() << "FUSE cannot mount here: " << err;
    }
    void TearDown() override {
        if (phone_)
            phone_->down();
        EXPECT_FALSE(is_mounted());
    }
    bool is_mounted() const {
        return read_file("/proc/self/mountinfo").find(sim_mount_dir(root_.path())) !=
               std::string::npos;
    }
    unique_fd open_dev(const std::string &device_path) const {
        return unique_fd(open(root_.at(device_path).c_str(), O_RDONLY | O_CLOEXEC));
    }
    int cmd(const std::string &line) { return phone_->command(line); }

    TempRoot root_;
    std::unique_ptr<SimPhone> phone_;
};

short poll_once(int fd, short events, int ms) {
    pollfd p{fd, events, 0};
    return poll(&p, 1, ms) == 1 ? p.revents : 0;
}

std::string read_to_eof(int fd) {
    std::string out;
    char buf[32768];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

void no_op(int) {}

TEST_F(DevicesTest, RamdumpBlocksStreamsEndsAndQueuesACrashDuringARead) {
    unique_fd fd = open_dev("/dev/ramdump_modem");
    ASSERT_TRUE(fd.valid());
    EXPECT_EQ(poll_once(fd.get(), POLLIN, 100), 0);

    // A read waits for the crash.
    std::string got;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        char buf[5];
        ssize_t n = read(fd.get(), buf, sizeof buf);
        got.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
        done = true;
    });
    usleep(100000);
    EXPECT_FALSE(done);
    ASSERT_EQ(cmd("crash modem 70000 1"), 0);
    reader.join();
    EXPECT_EQ(got, std::string("\x7f"
                               "ELF\x02",
                               5));
    EXPECT_NE(poll_once(fd.get(), POLLIN, 0) & POLLIN, 0);

    // A second crash while the first is read waits behind it.
    ASSERT_EQ(cmd("crash modem 1000 0"), 0);
    std::string first = got + read_to_eof(fd.get());
    EXPECT_EQ(first, ramdump_bytes("modem", 70000, true));
    EXPECT_NE(poll_once(fd.get(), POLLIN, 0) & POLLIN, 0);
    EXPECT_EQ(read_to_eof(fd.get()), ramdump_bytes("modem", 1000, false));
    EXPECT_EQ(poll_once(fd.get(), POLLIN, 50), 0);

    // A 1 GiB dump is made as it is read, not held.
    long rss = resident_kib(getpid());
    ASSERT_EQ(cmd("crash modem 1073741824 0"), 0);
    char head[8];
    ASSERT_EQ(read(fd.get(), head, sizeof head), 8);
    EXPECT_EQ(std::string(head, 8), ramdump_bytes("modem", 8, false));
    EXPECT_LT(resident_kib(getpid()) - rss, 64 * 1024);

    // Another device is untouched; bad injections are refused.
    unique_fd adsp = open_dev("/dev/ramdump_adsp");
    EXPECT_EQ(poll_once(adsp.get(), POLLIN, 0), 0);
    EXPECT_EQ(cmd("crash nosuch 10 0"), -EINVAL);
    EXPECT_EQ(cmd("crash modem 0 0"), -EINVAL);
    EXPECT_EQ(cmd("crash modem -5 0"), -EINVAL);
    EXPECT_EQ(cmd("crash modem 1073741825 0"), -EINVAL);
    EXPECT_EQ(cmd("explode"), -EINVAL);
}

TEST_F(DevicesTest, SignalInterruptsABlockedRead) {
    // The collectors stop their readers with a signal whose handler only logs.
    struct sigaction sa {
    }, old{};
    sa.sa_handler = no_op;
    sigaction(SIGUSR1, &sa, &old);
    unique_fd fd = open_dev("/dev/ramdump_venus");
    std::atomic<int> err{0};
    std::atomic<bool> started{false};
    std::thread reader([&] {
        char c;
        started = true;
        if (read(fd.get(), &c, 1) < 0)
            err = errno;
    });
    ASSERT_TRUE(wait_until([&] { return started.load(); }, 1000));
    usleep(100000);
    pthread_kill(reader.native_handle(), SIGUSR1);
    ASSERT_TRUE(wait_until([&] { return err.load() != 0; }, 3000));
    reader.join();
    EXPECT_EQ(err.load(), EINTR);
    sigaction(SIGUSR1, &old, nullptr);
}

unique_fd reader(const std::string &path, const char *cmd) {
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return unique_fd();
    send(fd.get(), cmd, strlen(cmd), 0);
    timeval tv{3, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

std::string next(int fd) {
    char buf[5120];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

TEST(FakeLogdTest, ReadersGetTheirOwnBuffersSideBySide) {
    TempRoot root;
    FakeLogd logd(root.at("/logdr"));
    std::string early = FakeLogd::text_entry(LOG_ID_MAIN, 4, "T", "before anyone");
    logd.send(early);
    unique_fd main_reader = reader(root.at("/logdr"), "stream lids=0,3");
    ASSERT_TRUE(main_reader.valid());
    EXPECT_EQ(next(main_reader.get()), early);

    unique_fd radio_reader = reader(root.at("/logdr"), "stream lids=1");
    ASSERT_TRUE(wait_until([&] { return logd.readers() == 2; }, 3000));
    std::string m = FakeLogd::text_entry(LOG_ID_MAIN, 4, "T", "main");
    std::string r = FakeLogd::text_entry(LOG_ID_RADIO, 4, "T", "radio");
    std::string s = FakeLogd::text_entry(LOG_ID_SYSTEM, 4, "T", "system");
    logd.send_all({m, r, s});
    EXPECT_EQ(next(main_reader.get()), m);
    EXPECT_EQ(next(main_reader.get()), s);
    EXPECT_EQ(next(radio_reader.get()), r);  // the first reader was not replaced
    EXPECT_TRUE(wait_until([&] { return logd.drained(); }, 3000));

    // One reader hangs up; the other goes on.
    radio_reader.reset();
    logd.send(m);
    EXPECT_EQ(next(main_reader.get()), m);
}

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
