// The device-node readers on FIFOs standing in for device nodes: raw and
// kernel-logger data, the pre-log buffer while the log root is unusable, the
// multi-device reader's slots; and under faults: the log root or the device
// removed while in use, a full disk, descriptors past the old select() limit.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/capture/capture_env.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"

namespace {

TEST(DevnodeCaptureTest, PreLogDataLeadsTheFirstFileOnceTheLogRootIsWritable) {
    LogCapture log;
    std::string root = device_log_root("devnode");
    block_log_root(root);
    int raw_fd = make_fifo("/dev/raw0");
    int klog_fd = make_fifo("/dev/klog0");
    vorn_node *raw = make_node("RPM", 0x00, "/dev/raw0", "Raw/raw");
    vorn_node *klog = make_node("AdbMain", 0x02, "/dev/klog0", "Klog/main");
    disable_at_end raw_guard{raw}, klog_guard{klog};
    set_enable(raw, true);
    set_enable(klog, true);
    start_variant<capture_devnode>(raw);
    start_variant<capture_devnode>(klog);
    ASSERT_TRUE(wait_for([&] { return log.count("Malloc pre log buf: /dev/raw0.\n") == 1; }, 6000))
        << log.dump();
    ASSERT_TRUE(
        wait_for([&] { return log.count("Malloc pre log buf: /dev/klog0.\n") == 1; }, 6000));

    // Raw bytes, zero bytes included, go through unchanged.
    const std::string early("early\0\xff raw\n", 12);
    EXPECT_TRUE(put(raw_fd, early));
    EXPECT_TRUE(put(klog_fd, klog_entry(klog_text(4, "boot", "first\nsecond"))));
    EXPECT_TRUE(put(klog_fd, klog_entry(klog_text(6, "boot", "third"))));
    usleep(300 * 1000);
    EXPECT_TRUE(read_dir_files(root + "Raw").empty());

    unblock_log_root(root);
    EXPECT_TRUE(put(raw_fd, "late\n"));
    EXPECT_TRUE(put(klog_fd, klog_entry(klog_text(5, "late", "fourth"))));
    const std::string stamp = "11-14 22:13:20.123: ";
    const std::string klog_lines =
        stamp + "I/boot    ( 1234): first\n" + stamp + "I/boot    ( 1234): second\n" + stamp +
        "E/boot    ( 1234): third\n" + stamp + "W/late    ( 1234): fourth\n";
    EXPECT_TRUE(dir_becomes(root + "Raw", early + "late\n")) << read_dir_files(root + "Raw");
    EXPECT_TRUE(dir_becomes(root + "Klog", klog_lines)) << read_dir_files(root + "Klog");
    EXPECT_EQ(log.count("Free pre log buf: /dev/raw0\n"), 1u);
    EXPECT_EQ(log.count("Free pre log buf: /dev/klog0\n"), 1u);

    // A wrong-length entry is dropped and the reader goes on.
    EXPECT_TRUE(put(klog_fd, klog_entry(klog_text(4, "bad", "dropped"), 3)));
    EXPECT_TRUE(put(klog_fd, klog_entry(klog_text(4, "ok", "after"))));
    EXPECT_TRUE(dir_becomes(root + "Klog", klog_lines + stamp + "I/ok      ( 1234): after\n"));
    EXPECT_TRUE(log.has("WARNING: read expected: 3,  read actually: 13\n")) << log.dump();

    // Disabled while the reader waits for data: the next delivery is written,
    // then device and file close.
    ASSERT_TRUE(wait_for([&] { return blocked_reading("raw0", raw_fd); }, 3000));
    set_enable(raw, false);
    EXPECT_TRUE(put(raw_fd, "last\n"));
    EXPECT_TRUE(dir_becomes(root + "Raw", early + "late\nlast\n"));
    EXPECT_TRUE(wait_for([&] { return open_fds_naming("raw0") == 1; }, 3000));
    ASSERT_EQ(write(raw_fd, "unread\n", 7), 7);
    EXPECT_EQ(read_dir_files(root + "Raw"), early + "late\nlast\n");
    set_enable(klog, false);
    EXPECT_TRUE(put(klog_fd, klog_entry(klog_text(4, "ok", "bye"))));
    close(raw_fd);
    close(klog_fd);
}

TEST(DevnodeCaptureTest, MultiDeviceReaderUsesFourSlotsAndSkipsTheOneThatWillNotOpen) {
    LogCapture log;
    std::string root = device_log_root("multi");
    int a = make_fifo("/dev/ma");
    int b = make_fifo("/dev/mb");
    int c = make_fifo("/dev/mc");
    vorn_node *node =
        make_node("QXDM", 0xC0, "/dev/ma;/dev/missing /dev/mb;/dev/mc;/dev/fifth", "Multi/multi");
    disable_at_end guard{node};
    set_enable(node, true);
    start_variant<capture_multi_devnode>(node);
    ASSERT_TRUE(
        wait_for([&] { return log.has("Failed to open the device node: /dev/missing\n"); }, 6000));

    std::string want;
    for (auto [fd, text] :
         {std::pair{a, "from a\n"}, {b, "from b\n"}, {c, "from c\n"}, {a, "a again\n"}}) {
        EXPECT_TRUE(put(fd, text));
        want += text;
        ASSERT_TRUE(dir_becomes(root + "Multi", want)) << read_dir_files(root + "Multi");
    }
    EXPECT_EQ(log.count("Failed to open the device node: /dev/missing\n"), 1u) << log.dump();
    EXPECT_FALSE(log.has_containing("/dev/fifth"));
    EXPECT_EQ(list_dir(capture_root().at(root + "Multi")).size(), 1u);

    // A change is seen with the next delivery; the slots and the file close.
    usleep(100 * 1000);
    set_enable(node, false);
    EXPECT_TRUE(put(b, "seen\n"));
    EXPECT_TRUE(dir_becomes(root + "Multi", want + "seen\n"));
    ASSERT_EQ(write(c, "not seen\n", 9), 9);
    usleep(300 * 1000);
    EXPECT_EQ(read_dir_files(root + "Multi"), want + "seen\n");
    close(a);
    close(b);
    close(c);
}

TEST(DevnodeFault, LogRootAndDeviceRemovedWhileInUse) {
    LogCapture log;
    std::string root = device_log_root("gone");
    int fd = make_fifo("/dev/gone0");
    vorn_node *node = make_node("RPM", 0x00, "/dev/gone0", "Raw/raw");
    disable_at_end guard{node};
    set_enable(node, true);
    start_variant<capture_devnode>(node);
    ASSERT_TRUE(put(fd, "one\n"));
    ASSERT_TRUE(dir_becomes(root + "Raw", "one\n")) << log.dump();

    // The whole log root goes: the next write after the once-a-second look
    // lands in a new file under a directory made again, not in the unlinked one.
    std::filesystem::remove_all(capture_root().at(root));
    usleep(1100 * 1000);
    ASSERT_TRUE(put(fd, "two\n"));
    EXPECT_TRUE(dir_becomes(root + "Raw", "two\n")) << log.dump();
    EXPECT_TRUE(log.has_containing("was removed, continuing in a new file."));

    // The device goes: end of data, the device closed, reopen failures at the
    // poll; once it is back, reading goes on into the same file.
    unlink(capture_root().at("/dev/gone0").c_str());
    close(fd);
    EXPECT_TRUE(
        wait_for([&] { return log.has("Failed to open the device node: /dev/gone0\n"); }, 10000))
        << log.dump();
    EXPECT_TRUE(log.has_containing("Failed to read from dev node: /dev/gone0"));
    fd = make_fifo("/dev/gone0");
    ASSERT_TRUE(put(fd, "three\n", 10000));
    EXPECT_TRUE(dir_becomes(root + "Raw", "two\nthree\n"));
    EXPECT_EQ(list_dir(capture_root().at(root + "Raw")).size(), 1u);
    close(fd);
}

// A full disk: the failed write is logged, nothing written is lost, and once
// space returns writing goes on in the same file. Both readers of device
// nodes: the one with a pre-log buffer and the multi-device reader.
void full_disk_case(uint8_t logtype, void (*start)(vorn_node *)) {
    LogCapture log;
    std::string dir = fresh_log_root("devfull", "D");
    SmallDisk disk(std::filesystem::path(dir).parent_path().string(), "32k");
    if (!disk.ok())
        GTEST_SKIP() << "cannot mount a tmpfs here: " << disk.error();
    const char *dev = logtype == 0 ? "/dev/full0" : "/dev/full1";
    int fd = make_fifo(dev);
    vorn_node *node = make_node(logtype == 0 ? "RPM" : "QXDM", logtype, dev, "D/full");
    disable_at_end guard{node};
    set_enable(node, true);
    start(node);

    std::string line(999, 'x');
    line += '\n';
    bool failed = false;
    for (int i = 0; i < 60 && !failed; i++) {
        put(fd, line);
        failed = log.has("Failed to write out to log file\n");
    }
    std::string first = file_at(dir, 0);
    disk.resize("1m");
    bool resumed = put(fd, "after\n", 10000) &&
                   wait_for(
                       [&] {
                           std::string now = file_at(dir, 0);
                           return now.size() >= 6 && now.substr(now.size() - 6) == "after\n";
                       },
                       8000);
    std::string after = file_at(dir, 0);
    size_t files = list_dir(dir).size();
    set_enable(node, false);
    put(fd, "bye\n");
    close(fd);
    ASSERT_TRUE(failed) << log.dump();
    EXPECT_TRUE(resumed) << log.dump();
    EXPECT_EQ(files, 1u);
    ASSERT_GT(first.size(), 10000u);
    EXPECT_EQ(after.compare(0, first.size(), first), 0);  // nothing written was lost
}

TEST(DevnodeFault, FullDiskKeepsTheFileAndResumesWhenSpaceReturns) {
    full_disk_case(0x00, start_variant<capture_devnode>);
}

TEST(DevnodeFault, MultiDeviceReaderOnAFullDisk) {
    full_disk_case(0xC0, start_variant<capture_multi_devnode>);
}

// A pipe whose descriptor is far past 1,024 is captured like any other.
TEST(DevnodeFault, PipeCaptureWithDescriptorsPastTheSelectLimit) {
    struct rlimit lim;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    if (lim.rlim_max < 2048)
        GTEST_SKIP() << "descriptor limit " << lim.rlim_max;
    struct rlimit raised = {2048, lim.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<int> held;
    int fd;
    while ((fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0 && fd < 1200)
        held.push_back(fd);
    if (fd >= 0)
        held.push_back(fd);
    std::string dir = fresh_log_root("highfd", "H");
    vorn_node *node = start_pipe_node("echo high-fd; exec sleep 30", "H/high", 0);
    disable_at_end off{node};
    bool seen = wait_for([&] { return file_at(dir, 0) == "high-fd\n"; }, 10000);
    EXPECT_TRUE(disable_and_settle(node));
    for (int h : held)
        close(h);
    setrlimit(RLIMIT_NOFILE, &lim);
    EXPECT_TRUE(seen) << file_at(dir, 0);
}

}  // namespace
