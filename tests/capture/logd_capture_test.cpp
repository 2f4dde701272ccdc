// Logd capture against a fake logd on <root>/dev/socket/logdr: the record
// decoder, interleaved buffers, the pre-log buffer, new files, logd going
// away and coming back, events, and records that lie.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "capture/logd_capture.h"
#include "platform/logd_reader.h"
#include "sim/fake_logd.h"
#include "tests/capture/capture_env.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"

namespace {

// A record with a header of hdr_size bytes (fields as far as they fit) and
// a len field that may lie.
std::string wire(uint16_t hdr_size, const std::string &payload, int len_field = -1,
                 uint32_t lid = LOG_ID_MAIN) {
    logger_entry e{};
    e.len = static_cast<uint16_t>(len_field < 0 ? payload.size() : len_field);
    e.hdr_size = hdr_size;
    e.pid = 10;
    e.tid = 11;
    e.sec = 1700000000;
    e.nsec = 5000000;
    e.lid = lid;
    e.uid = 1000;
    std::string rec(reinterpret_cast<const char *>(&e), std::min<size_t>(hdr_size, sizeof e));
    rec.resize(hdr_size, 'H');
    return rec + payload;
}

TEST(LogdrDecodeTest, AcceptsTruthfulHeadersOnlyAndRewritesThemForLiblog) {
    const std::string payload("\x04tag\0msg\0", 9);
    struct {
        const char *name;
        std::string rec;
        int want;  // decoded size, or -1
        uint32_t uid;
    } cases[] = {
        {"liblog's header", wire(28, payload), 28 + 9, 1000},
        {"header without uid", wire(24, payload), 28 + 9, 0},
        {"larger header", wire(40, payload), 28 + 9, 1000},
        {"header too small for lid", wire(20, payload), -1, 0},
        {"header size beyond the record", wire(28, payload).substr(0, 26), -1, 0},
        {"len longer than the payload", wire(28, payload, 10), -1, 0},
        {"payload beyond an entry", wire(28, std::string(5100, 'p')), -1, 0},
    };
    auto msg = std::make_unique<log_msg>();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        memset(msg.get(), 0x5a, sizeof *msg);
        ASSERT_EQ(vorn_logdr_decode(c.rec.data(), c.rec.size(), msg.get()), c.want);
        if (c.want < 0)
            continue;
        EXPECT_EQ(msg->entry.hdr_size, sizeof(logger_entry));
        EXPECT_EQ(msg->entry.len, 9);
        EXPECT_EQ(msg->entry.pid, 10);
        EXPECT_EQ(msg->entry.uid, c.uid);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(msg->buf) + 28, 10), payload + '\0');
    }
}

class LogdCaptureTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        capture_root().mkdir("/dev/socket");
        capture_root().write("/system/etc/event-log-tags", "42 answer (value|1)\n");
    }
    static std::string line(char prio, const char *tag, const std::string &msg, int pid = 1234) {
        char head[64];
        snprintf(head, sizeof head, "11-14 22:13:20.000 %c/%-8s(%5d): ", prio, tag, pid);
        return head + msg + "\n";
    }
    static std::string entry(log_id_t lid, int prio, const char *tag, const std::string &msg) {
        return FakeLogd::text_entry(lid, prio, tag, msg, 1234, 1700000000, 0);
    }
    // Waits until the reader has taken every record, and a little longer for
    // it to act on the last one, before the test changes the node.
    static void settle(const FakeLogd &logd) {
        ASSERT_TRUE(wait_for([&] { return logd.drained(); }, 3000));
        usleep(100 * 1000);
    }
};

TEST_F(LogdCaptureTest, InterleavesBuffersKeepsPreLogFollowsNewFilesAndReconnects) {
    LogCapture log;
    FakeLogd logd(capture_root().at(VORN_LOGDR_SOCKET));
    std::string root = device_log_root("logd");
    vorn_node *node = make_node("AdbMain", 0x02, "main;system", "Adb/main");
    disable_at_end guard{node};
    start_variant<capture_logd>(node);
    // Past its start-up wait for the log root, the worker is enabled while
    // external storage is gone.
    ASSERT_TRUE(wait_for([&] { return log.has_containing("logname_prefix:main,"); }, 3000));
    block_log_root(root);
    set_enable(node, true);
    ASSERT_TRUE(wait_for([&] { return logd.readers() == 1; }, 6000)) << log.dump();
    EXPECT_EQ(logd.commands()[0], "stream lids=0,3");
    EXPECT_TRUE(log.has("Malloc pre log buf: main;system.\n")) << log.dump();

    // Buffered while the log root is unusable, written first once it is.
    logd.send(entry(LOG_ID_MAIN, 4, "m", "one"));
    logd.send(entry(LOG_ID_SYSTEM, 5, "s", "two\nthree"));
    logd.send(entry(LOG_ID_MAIN, 6, "m", "four"));
    settle(logd);
    unblock_log_root(root);
    logd.send(entry(LOG_ID_SYSTEM, 3, "s", "five"));
    logd.send(entry(LOG_ID_MAIN, 4, "m", "six"));
    std::string first = line('I', "m", "one") + line('W', "s", "two") + line('W', "s", "three") +
                        line('E', "m", "four") + line('D', "s", "five") + line('I', "m", "six");
    ASSERT_TRUE(wait_for([&] { return log.has("Free pre log buf: main;system\n"); }, 3000));
    settle(logd);

    // A new-file request closes the first file before the next entry.
    {
        vorn_node_guard g(node);
        node->new_file_request = 1;
    }
    logd.send(entry(LOG_ID_MAIN, 4, "m", "seven"));
    EXPECT_TRUE(dir_becomes(root + "Adb", first)) << read_dir_files(root + "Adb");
    ASSERT_TRUE(
        wait_for([&] { return list_dir(capture_root().at(root + "Adb")).size() == 2; }, 6000));
    {
        vorn_node_guard g(node);
        EXPECT_EQ(node->new_file_request, 0);
    }

    // logd goes away: three failed reads, then the idle poll reconnects.
    logd.go_away();
    ASSERT_TRUE(wait_for(
        [&] { return log.has_containing(": Failed to read from dev node: main;system\n"); }, 3000));
    EXPECT_TRUE(log.has("Connection reset by peer: Failed to read from dev node: main;system\n"))
        << log.dump();
    ASSERT_TRUE(wait_for(
        [&] {
            return log.has(
                "No such file or directory: Failed to read from dev node: main;system\n");
        },
        6000));
    logd.come_back();
    ASSERT_TRUE(wait_for([&] { return logd.readers() == 2; }, 6000));
    logd.send(entry(LOG_ID_SYSTEM, 4, "s", "eight"));
    settle(logd);

    // Disabled: the entry that shows it is written, then the file closes.
    set_enable(node, false);
    logd.send(entry(LOG_ID_MAIN, 4, "m", "nine"));
    EXPECT_TRUE(dir_becomes(root + "Adb", first + line('I', "m", "seven") +
                                              line('I', "s", "eight") + line('I', "m", "nine")))
        << read_dir_files(root + "Adb");
}

TEST_F(LogdCaptureTest, OpensFourBuffersRendersEventsAndSkipsWhatCannotBeConverted) {
    LogCapture log;
    FakeLogd logd(capture_root().at(VORN_LOGDR_SOCKET));
    std::string root = device_log_root("logdev");
    vorn_node *node =
        make_node("AdbEvents", 0x02, "main;/dev/log/radio;events system;crash", "Ev/ev");
    disable_at_end guard{node};
    set_enable(node, true);
    start_variant<capture_logd>(node);
    ASSERT_TRUE(wait_for([&] { return logd.readers() == 1; }, 6000)) << log.dump();
    EXPECT_EQ(logd.commands()[0], "stream lids=0,1,2,3");

    auto int_event = [](uint32_t tag, uint32_t v) {
        return FakeLogd::event_entry(
            tag, std::string(1, '\0') + std::string(reinterpret_cast<char *>(&v), 4), 1234,
            1700000000, 0);
    };
    const std::string long_msg(4000, 'L');
    logd.send(int_event(42, 7));
    logd.send(int_event(43, 8));
    logd.send(entry(LOG_ID_RADIO, 4, "r", long_msg));
    logd.send(wire(28, std::string("\x04tag\0msg\0", 9), 65535));  // len lies
    logd.send(wire(12, std::string("\x04tag\0msg\0", 9)));         // header size lies
    logd.send(FakeLogd::text_entry(LOG_ID_MAIN, 4, "huge", std::string(65000, 'h')));
    logd.send(entry(LOG_ID_CRASH, 4, "c", "not asked for"));
    logd.send(FakeLogd::event_entry(42, std::string("\x09\x01\x02", 3)));  // unknown type
    logd.send(FakeLogd::event_entry(42, std::string("\x00\x07", 2)));      // truncated int
    logd.send(wire(28, std::string("\x04", 1)));                           // too short for liblog
    ASSERT_TRUE(
        wait_for([&] { return log.count("android_log_processLogBuffer error: -1.\n") == 3; }, 3000))
        << log.dump();
    EXPECT_EQ(log.count_containing("logdr: dropped a malformed record"), 3u);
    settle(logd);
    set_enable(node, false);
    logd.send(entry(LOG_ID_SYSTEM, 4, "s", "last"));
    std::string want = line('I', "answer", "7") + line('I', "[43]", "8") +
                       line('I', "r", long_msg) + line('I', "s", "last");
    EXPECT_TRUE(dir_becomes(root + "Ev", want)) << read_dir_files(root + "Ev").substr(0, 500);
    // Four events entries, one tag map.
    EXPECT_LE(mappings_naming("event-log-tags"), 1u);
}

// A full disk: the failed write is logged and ends the connection; after the
// idle poll the reader continues the same file, and once space returns the
// next entry follows what was written before.
TEST_F(LogdCaptureTest, FullDiskKeepsTheFileAndResumesWhenSpaceReturns) {
    LogCapture log;
    FakeLogd logd(capture_root().at(VORN_LOGDR_SOCKET));
    std::string dir = fresh_log_root("logdfull", "Full");
    SmallDisk disk(std::filesystem::path(dir).parent_path().string(), "32k");
    if (!disk.ok())
        GTEST_SKIP() << "cannot mount a tmpfs here: " << disk.error();
    vorn_node *node = make_node("AdbMain", 0x02, "main", "Full/full");
    disable_at_end guard{node};
    set_enable(node, true);
    start_variant<capture_logd>(node);
    ASSERT_TRUE(wait_for([&] { return logd.readers() == 1; }, 6000)) << log.dump();
    const std::string text(900, 'x');
    for (int i = 0; i < 60 && !log.has("Failed to write out to log file\n"); i++) {
        logd.send(entry(LOG_ID_MAIN, 4, "f", text));
        ASSERT_TRUE(wait_for([&] { return logd.drained(); }, 3000));
    }
    ASSERT_TRUE(log.has("Failed to write out to log file\n")) << log.dump();
    ASSERT_TRUE(wait_for([&] { return logd.readers() == 2; }, 6000)) << log.dump();
    std::string first = file_at(dir, 0);
    ASSERT_TRUE(disk.resize("1m"));
    set_enable(node, false);  // the entry that shows it is written, and the file closed
    logd.send(entry(LOG_ID_MAIN, 4, "f", "after"));
    std::string last = line('I', "f", "after");
    ASSERT_TRUE(wait_for(
        [&] {
            std::string now = file_at(dir, 0);
            return now.size() > last.size() &&
                   now.compare(now.size() - last.size(), last.size(), last) == 0;
        },
        6000))
        << log.dump();
    std::string after = file_at(dir, 0);
    EXPECT_EQ(list_dir(dir).size(), 1u);
    ASSERT_GT(first.size(), 10000u);
    EXPECT_EQ(after.compare(0, first.size(), first), 0);  // nothing written was lost
    EXPECT_EQ(first.compare(0, line('I', "f", text).size(), line('I', "f", text)), 0);
}

}  // namespace
