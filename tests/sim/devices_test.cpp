// The simulated phone's ramdump devices as a reader sees them through the
// mount: blocking reads, end of file, poll readiness, EINTR on a signal; and
// the fake logd with several readers at once, as the phone's logd nodes
// connect: each gets the entries of its own buffers, and entries queued while
// nobody reads wait for the first reader. The trace device's rate and
// overflow, the GPU hang's poll wake-ups and the logger devices' one entry per
// read are read by the daemon itself in tests/e2e/sim_*_test.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include "platform/io.h"
#include "sim/device_root.h"
#include "sim/fake_logd.h"
#include "sim/phone.h"
#include "sim/ramdump_device.h"
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

}  // namespace
