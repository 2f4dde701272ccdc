// The simulated phone's ramdump devices as a reader sees them through the
// mount: blocking reads, end of file, poll readiness, EINTR on a signal. The
// trace device's rate and overflow, the GPU hang's poll wake-ups and the
// logger devices' one entry per read are read by the daemon itself in
// tests/e2e/sim_*_test.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "platform/io.h"
#include "sim/device_root.h"
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

}  // namespace
