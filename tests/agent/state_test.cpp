// Shared routines: state files, shell writes, names and number checks.
#include "agent/dagt_state.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/agent/agent_fixture.h"

namespace {

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

// The rooted echo, the silent pass and failing echoes are covered by the
// commands; these are the cases no command reaches.
TEST_F(FileStateTest, SetStateWordsAndOverlongCommands) {
    root.write("/sys/x/enable", "0");
    dagt_result r = marked_result();
    EXPECT_EQ(dagt_set_state(&r, nullptr, "enable"), -1);
    EXPECT_EQ(r.code, 7);
    EXPECT_TRUE(log.has("path is empty\n"));
    EXPECT_EQ(dagt_set_state(&r, "/sys/x/enable", "on"), -1);
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(log.has("dagt_set_state:Unknown parameter (on)\n"));
    EXPECT_EQ(root.read("/sys/x/enable"), "0");

    char line[DAGT_CMD_LEN];
    std::string word(300, 'a');
    EXPECT_EQ(dagt_build_cmd(&r, line, sizeof line, "echo %s > /x", word.c_str()), -1);
    EXPECT_EQ(r.code, 8);
    EXPECT_EQ(r.sys_errno, ENAMETOOLONG);
}

}  // namespace
