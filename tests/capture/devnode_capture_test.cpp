// The device-node readers on FIFOs standing in for device nodes: raw and
// kernel-logger data, the pre-log buffer while the log root is unusable, and
// the multi-device reader's slots.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/capture/capture_env.h"
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

}  // namespace
