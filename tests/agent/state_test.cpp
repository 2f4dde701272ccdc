// Shared routines: state files, shell writes, names and number checks.
#include "agent/dagt_state.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/agent/agent_fixture.h"

namespace {

dagt_result marked_result() {
    dagt_result r = {};
    r.code = 7;
    r.text_len = 3;
    strcpy(r.text, "old");
    return r;
}

TEST(StateTest, ParseState) {
    const struct {
        const char *content;
        int rc;
        int32_t code;
        const char *text;
    } cases[] = {
        {"1", 0, 0, "enable"},           {"0", 0, 0, "disable"},
        {"0x1", 0, 0, "enable"},         {"0X0\n", 0, 0, "disable"},
        {"1\n", 0, 0, "enable"},         {"10", 0, 0, "enable"},
        {"2", -1, 14, "Unknown state"},  {"", -1, 14, "Unknown state"},
        {"0x", -1, 14, "Unknown state"}, {"x1", -1, 14, "Unknown state"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.content);
        dagt_result r = marked_result();
        EXPECT_EQ(dagt_parse_state(&r, c.content), c.rc);
        EXPECT_EQ(r.code, c.code);
        EXPECT_STREQ(r.text, c.text);
    }
    LogCapture log;
    dagt_result r;
    dagt_parse_state(&r, "0xabcdef");
    EXPECT_TRUE(log.has("dagt_parse_state: Unknown state abcd\n"));
}

TEST(StateTest, CheckNumber) {
    const struct {
        const char *text;
        size_t max;
        int rc;
    } cases[] = {
        {"123", 10, 0},    {"0x1F", 10, 0},   {"0XaB\n", 10, 0}, {"", 10, 0},     {"0x", 10, 0},
        {"0x\n", 10, 0},   {"12\nzz", 10, 0}, {"12z", 2, 0},     {"0xZZ", 1, 0},  {"12a", 10, -22},
        {"0x1G", 10, -22}, {"-1", 10, -22},   {" 1", 10, -22},   {"1f", 10, -22},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        dagt_result r = marked_result();
        EXPECT_EQ(dagt_check_number(&r, c.text, c.max), c.rc);
        EXPECT_EQ(r.code, c.rc == 0 ? 7 : 18);
    }
}

TEST(StateTest, ParseNumBase) {
    const struct {
        const char *text;
        int rc;
        int hex;
    } cases[] = {
        {"0x1f", 0, 1}, {"0XAB", 0, 1},  {"0x0", 0, 1}, {"12", 0, 0},
        {"007", 0, 0},  {"", 0, 0},      {"0x", -1, 0}, {"0xZZ", -1, 0},
        {"1a", -1, 0},  {"0x1g", -1, 0}, {"-3", -1, 0}, {"0b1", -1, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        int hex = 42;
        EXPECT_EQ(dagt_parse_num_base(c.text, &hex), c.rc);
        EXPECT_EQ(hex, c.rc == 0 ? c.hex : 42);
    }
}

TEST(StateTest, SubsystemNumbersKeepTheGap) {
    const struct {
        const char *name;
        uint32_t number;
    } cases[] = {{"apps", 1},   {"MODEM", 2},   {"wcn", 3},    {"rpm", 4},  {"adsp", 5},
                 {"video1", 6}, {"video2", 16}, {"sensor", 8}, {"Audio", 9}};
    for (const auto &c : cases) {
        uint32_t n = 0;
        EXPECT_EQ(dagt_get_subsys(c.name, &n), 0) << c.name;
        EXPECT_EQ(n, c.number) << c.name;
    }
    LogCapture log;
    uint32_t n = 99;
    EXPECT_EQ(dagt_get_subsys("venus", &n), 102);
    EXPECT_EQ(dagt_get_subsys(nullptr, &n), 102);
    EXPECT_EQ(n, 99u);
    EXPECT_EQ(log.find("Unsupported subsystem.").prio, ANDROID_LOG_ERROR);
}

class FileStateTest : public ::testing::Test {
  protected:
    TempRoot root;
    LogCapture log;
};

TEST_F(FileStateTest, GetStateReadsTenBytesAtMost) {
    const struct {
        std::string content;
        std::string read;
    } cases[] = {{"", ""}, {"1", "1"}, {std::string(4096, '7'), std::string(10, '7')}};
    for (const auto &c : cases) {
        root.write("/sys/x/enable", c.content);
        char buf[DAGT_STATE_BUF + 4];
        memset(buf, 0, sizeof buf);
        buf[10] = '#';  // must survive the read
        dagt_result r = marked_result();
        EXPECT_EQ(dagt_get_state(&r, "/sys/x/enable", buf, DAGT_STATE_READ_LEN), 0);
        EXPECT_EQ(std::string(buf, strnlen(buf, 10)), c.read);
        EXPECT_EQ(buf[10], '#');
        EXPECT_EQ(r.code, 7);
    }
    char buf[DAGT_STATE_BUF] = {};
    dagt_result r = marked_result();
    EXPECT_EQ(dagt_get_state(&r, "/sys/missing", buf, 10), -1);
    EXPECT_EQ(r.code, 6);
    EXPECT_TRUE(log.has("dagt_get_state:Open /sys/missing failed (No such file or directory)\n"));
    EXPECT_EQ(dagt_get_state(&r, nullptr, buf, 10), -1);
    EXPECT_EQ(r.code, 10);
    EXPECT_EQ(dagt_get_state(&r, "/sys/x/enable", nullptr, 10), -1);
    EXPECT_EQ(r.code, 11);
    EXPECT_EQ(dagt_get_state(nullptr, "/sys/x/enable", buf, 10), -1);
    root.mkdir("/sys/dir");
    EXPECT_EQ(dagt_get_state(&r, "/sys/dir", buf, 10), -1);
    EXPECT_EQ(r.code, 7);
}

TEST_F(FileStateTest, SetStateEchoesIntoTheRootedFile) {
    root.write("/sys/x/enable", "0");
    dagt_result r = marked_result();
    EXPECT_EQ(dagt_set_state(&r, "/sys/x/enable", "ENABLE"), 0);
    EXPECT_EQ(root.read("/sys/x/enable"), "1\n");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.text_len, 0);
    EXPECT_EQ(dagt_set_state(&r, "/sys/x/enable", "disable"), 0);
    EXPECT_EQ(root.read("/sys/x/enable"), "0\n");

    // A board without the file passes silently.
    r = marked_result();
    EXPECT_EQ(dagt_set_state(&r, "/sys/none/enable", "enable"), -1);
    EXPECT_EQ(r.code, 7);
    EXPECT_FALSE(root.exists("/sys/none/enable"));
    EXPECT_EQ(dagt_set_state(&r, nullptr, "enable"), -1);
    EXPECT_EQ(r.code, 7);
    EXPECT_TRUE(log.has("path is empty\n"));

    EXPECT_EQ(dagt_set_state(&r, "/sys/x/enable", "on"), -1);
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(log.has("dagt_set_state:Unknown parameter (on)\n"));
    EXPECT_EQ(root.read("/sys/x/enable"), "0\n");

    // The echo itself fails: the shell cannot write into a directory.
    root.mkdir("/sys/y/enable");
    r = marked_result();
    EXPECT_NE(dagt_set_state(&r, "/sys/y/enable", "enable"), 0);
    EXPECT_EQ(r.code, 8);
    EXPECT_STREQ(r.text, strerror(r.sys_errno));
    EXPECT_TRUE(log.has_containing("Fail to run cmd echo 1 > " + root.at("/sys/y/enable")));
}

TEST_F(FileStateTest, ShellAndOverlongCommands) {
    dagt_result r = marked_result();
    EXPECT_EQ(dagt_run_shell(&r, "true"), 0);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.text_len, 0);
    EXPECT_NE(dagt_run_shell(&r, "exit 3"), 0);
    EXPECT_EQ(r.code, 8);
    EXPECT_TRUE(log.has_containing("Fail to run cmd exit 3, Reason: "));

    char line[DAGT_CMD_LEN];
    std::string word(300, 'a');
    r = marked_result();
    EXPECT_EQ(dagt_build_cmd(&r, line, sizeof line, "echo %s > /x", word.c_str()), -1);
    EXPECT_EQ(r.code, 8);
    EXPECT_EQ(r.sys_errno, ENAMETOOLONG);
    EXPECT_EQ(dagt_build_cmd(&r, line, sizeof line, "echo %d > /x", 1), 0);
    EXPECT_STREQ(line, "echo 1 > /x");
}

}  // namespace
