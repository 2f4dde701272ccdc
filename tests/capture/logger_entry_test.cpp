// The kernel-logger entry formatter: text and events entries, and entries
// that lie about their size or end early.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "capture/logger_entry.h"
#include "tests/capture/capture_env.h"
#include "tests/support/log_capture.h"

namespace {

const std::string kStamp = "11-14 22:13:20.123: ";  // of every klog_entry()

std::string le32(uint32_t v) {
    return std::string(reinterpret_cast<const char *>(&v), 4);
}

class LoggerEntryTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        capture_root().write("/system/etc/event-log-tags", "42 answer (value|1)\n");
        device_log_root("fmt");
    }

    void SetUp() override { new_output(); }
    void TearDown() override {
        close_log_file(&file_);
        free(buf_);
    }

    // A fresh in-memory output for the next case.
    void new_output() {
        TearDown();
        buf_ = nullptr;
        file_.fp = open_memstream(&buf_, &size_);
    }

    // Formats bytes as a read returned them.
    int format(vorn_node *node, std::string bytes) {
        return format_logger_entry(&file_, bytes.data(), static_cast<int>(bytes.size()), cur_,
                                   node);
    }
    std::string output() {
        fflush(file_.fp);
        return std::string(buf_, size_);
    }

    vorn_node *text_node_ = make_node("AdbMain", 0x02, "/dev/log/main", "Main/main");
    vorn_node *event_node_ = make_node("AdbEvents", 0x02, "/dev/log/events", "Events/ev");
    vorn_log_file file_{};
    char cur_[VORN_PATH_MAX] = "";
    char *buf_ = nullptr;
    size_t size_ = 0;
    LogCapture log_;
};

std::string line(char letter, const std::string &tag, const std::string &msg) {
    char hdr[128];
    snprintf(hdr, sizeof hdr, "%c/%-8s(%5d): ", letter, tag.c_str(), 1234);
    return kStamp + hdr + msg + "\n";
}

TEST_F(LoggerEntryTest, TextEntriesBecomeOneHeaderedLinePerMessageLine) {
    const std::string big(4000 - 6, 'x');  // prio + "tag\0" + message + "\0" = 4000
    const std::string huge(65535 - 7, 'y');
    struct {
        const char *name;
        std::string bytes;  // as read
        std::string want;
        const char *warning = nullptr;
    } cases[] = {
        {"three lines", klog_entry(klog_text(4, "tag", "one\ntwo\nthree")),
         line('I', "tag", "one") + line('I', "tag", "two") + line('I', "tag", "three")},
        {"final newline adds no empty line", klog_entry(klog_text(6, "t", "done\n")),
         line('E', "t", "done")},
        {"empty inner line kept", klog_entry(klog_text(3, "t", "a\n\nb")),
         line('D', "t", "a") + line('D', "t", "") + line('D', "t", "b")},
        {"priority 8", klog_entry(klog_text(8, "t", "m")), line('S', "t", "m")},
        {"priority 9", klog_entry(klog_text(9, "t", "m")), line('?', "t", "m")},
        {"priority 0 has no tag", klog_entry(std::string("\0abc\0", 5)), line('?', "", "abc")},
        {"message without its zero loses its last byte",
         klog_entry(std::string(1, 4) + "tag" + std::string(1, '\0') + "hello"),
         line('I', "tag", "hell")},
        {"payload of 4000 bytes", klog_entry(klog_text(4, "tag", big)), line('I', "tag", big)},
        {"payload of 65535 bytes", klog_entry(klog_text(4, "big", huge)), line('I', "big", huge)},
        {"empty payload", klog_entry(""), ""},
        {"priority byte only", klog_entry(std::string(1, 4)), ""},
        {"tag without its zero", klog_entry(std::string(1, 4) + "tagtagtag"), ""},
        {"tag and no message", klog_entry(std::string(1, 4) + "tag" + std::string(1, '\0')), ""},
        {"header claims more", klog_entry(klog_text(4, "t", "abc"), 12), "",
         "WARNING: read expected: 12,  read actually: 7\n"},
        {"header claims less", klog_entry(klog_text(4, "t", "abc"), 2), "",
         "WARNING: read expected: 2,  read actually: 7\n"},
        {"65535 claimed, 4096 read",
         klog_entry(klog_text(4, "t", std::string(5000, 'z')), 65535).substr(0, 4096), "",
         "WARNING: read expected: 65535,  read actually: 4076\n"},
        {"read shorter than a header", klog_entry(klog_text(4, "t", "abc")).substr(0, 5), "",
         "WARNING: read expected: 7,  read actually: -15\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        new_output();
        log_.clear();
        EXPECT_EQ(format(text_node_, c.bytes), 0);
        EXPECT_EQ(output(), c.want);
        EXPECT_EQ(file_.written, c.want.size());
        EXPECT_EQ(log_.count_containing("WARNING"), c.warning ? 1u : 0u);
        if (c.warning) {
            EXPECT_TRUE(log_.has(c.warning)) << log_.dump();
        }
    }
}

TEST_F(LoggerEntryTest, EventsAreRenderedByTheBinaryEventPrinter) {
    const std::string int7 = std::string(1, '\0') + le32(7);
    const std::string list = std::string("\x03\x03", 2) + int7 + std::string(1, '\0') + le32(8) +
                             std::string(1, '\0') + le32(9);
    const std::string long_string = std::string(1, 2) + le32(2000) + std::string(2000, 's');
    struct {
        const char *name;
        std::string payload;
        std::string want;
        bool incomplete;
    } cases[] = {
        {"named tag", le32(42) + int7, kStamp + "answer( 1234): 7\n", false},
        {"unknown tag by number", le32(43) + int7, kStamp + "[43]( 1234): 7\n", false},
        {"list", le32(42) + list, kStamp + "answer( 1234): [7,8,9]\n", false},
        {"shorter than a tag number", std::string("\x2a\0", 2), "", false},
        {"truncated int", le32(42) + std::string(1, '\0') + "\x07\x00", "", true},
        {"unknown type", le32(42) + std::string(1, 9) + le32(7), "", true},
        {"string longer than its payload", le32(42) + std::string(1, 2) + le32(60000) + "abc", "",
         true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        new_output();
        log_.clear();
        EXPECT_EQ(format(event_node_, klog_entry(c.payload)), 0);
        EXPECT_EQ(output(), c.want);
        EXPECT_EQ(log_.has("Not a complete event log\n"), c.incomplete) << log_.dump();
    }

    // Rendered text is cut to what the printer's 1024-byte buffer holds.
    new_output();
    EXPECT_EQ(format(event_node_, klog_entry(le32(42) + long_string)), 0);
    std::string out = output();
    std::string head = kStamp + "answer( 1234): ";
    ASSERT_EQ(out.rfind(head, 0), 0u) << out.substr(0, 80);
    EXPECT_LE(out.size() - head.size(), 1024u);
    EXPECT_GT(out.size() - head.size(), 1000u);
    EXPECT_EQ(out.back(), '\n');
}

}  // namespace
