// The Debug Agent's entry point, result record and shared routines.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "agent/dagt.h"
#include "agent/dagt_state.h"
#include "tests/agent/agent_fixture.h"

namespace {

const char *const kStm = DAGT_STM_ENABLE;

std::string tokens(int n) {
    std::string line = "delay";
    for (int i = 1; i < n; i++)
        line += " w";
    return line;
}

class ParserTest : public ::testing::Test {
  protected:
    void SetUp() override { root.write(kStm, "1"); }
    TempRoot root;
    LogCapture log;
};

// Comments and empty lines leave the record alone; reserved words succeed
// without an answer; an unknown word has no handler and builds no summary.
TEST_F(ParserTest, LinesWithoutAHandler) {
    const struct {
        const char *line;
        uint32_t code;
        int32_t result_code;  // 7: untouched
    } cases[] = {
        {"# stm disable", 1, 7}, {"//stm disable", 1, 7}, {"#", 1, 7},         {"", 102, 7},
        {" ", 102, 7},           {"\t\r\n ", 102, 7},     {"\"", 102, 7},      {"\"\"\"", 102, 7},
        {" #stm", 102, 7},       {"reset 5", 0, 0},       {"startup", 0, 0},   {"odl 5", 0, 0},
        {"hlos 5", 0, 0},        {"DELAY 5", 0, 0},       {"foo bar", 104, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        dagt_result r = marked_result();
        EXPECT_EQ(agent_run(c.line, &r), c.code);
        EXPECT_EQ(r.code, c.result_code);
        EXPECT_EQ(r.text_len, c.result_code == 7 ? 3 : 0);
    }
    EXPECT_EQ(dagt_execute(nullptr, nullptr), 1u);
    EXPECT_EQ(root.read(kStm), "1");
    EXPECT_TRUE(log.has("Execute command ( #stm) failed: 102"));
    EXPECT_TRUE(log.has("Success to run command: DELAY->5;Resp: \n"));
    EXPECT_EQ(log.find("No handler for this command !\n").prio, ANDROID_LOG_ERROR);
    EXPECT_EQ(log.count("1: bar.\n"), 2u);
    EXPECT_TRUE(log.has("Execute command (foo) failed: 104"));
    EXPECT_FALSE(log.has_containing("run command: foo"));
}

TEST_F(ParserTest, TrailingCommentQuotesAndCase) {
    for (const char *line :
         {"stm get state # note", "STM GET STATE", "\"stm\" get \"state", "stm\tget\r\nstate\n"}) {
        SCOPED_TRACE(line);
        dagt_result r = marked_result();
        EXPECT_EQ(agent_run(line, &r), 0u);
        EXPECT_STREQ(r.text, "enable");
        EXPECT_EQ(dagt_cmd.count, 3u);
    }
    EXPECT_TRUE(log.has("Success to run command: stm->get->state;Resp: enable\n"));
    EXPECT_TRUE(log.has("0: stm.\n"));
}

TEST_F(ParserTest, TwentyTokensAtMost) {
    dagt_result r = marked_result();
    EXPECT_EQ(agent_run(tokens(20), &r), 0u);
    EXPECT_EQ(dagt_cmd.count, 20u);
    for (int n : {21, 1000}) {
        r = marked_result();
        log.clear();
        EXPECT_EQ(agent_run(tokens(n), &r), 100u) << n;
        EXPECT_EQ(r.code, 7);
        EXPECT_EQ(dagt_cmd.count, 20u);
        EXPECT_EQ(log.find("Agent max param cnt exceeded.").prio, ANDROID_LOG_ERROR);
    }
    // A comment after the twentieth token is not a twenty-first.
    EXPECT_EQ(agent_run(tokens(20) + " #more words", &r), 0u);
}

TEST_F(ParserTest, NullResultRunsNothing) {
    root.write(DAGT_HWEVENT_ENABLE, "1");
    for (const char *line :
         {"info get version", "stm enable", "stm disable", "hwe disable", "sink get",
          "etm modem enable", "cti reset x all", "swt apps enable ftrace"}) {
        log.clear();
        EXPECT_EQ(agent_run(line, nullptr), 11u) << line;
        EXPECT_TRUE(log.has_containing("failed: 11")) << line;
    }
    EXPECT_EQ(root.read(kStm), "1");
    EXPECT_EQ(root.read(DAGT_HWEVENT_ENABLE), "1");
    EXPECT_EQ(agent_run("delay 1", nullptr), 0u);
}

TEST_F(ParserTest, SummaryLines) {
    dagt_result r;
    EXPECT_EQ(agent_run("info get version extra", &r), 4u);
    EXPECT_STREQ(r.text, "Param number is not right");
    EXPECT_TRUE(log.has(
        "Fail to run command: info->get->version->extra;Reason: Param number is not right\n"));
    EXPECT_TRUE(log.has("Execute command (info) failed: 4"));

    // Twenty tokens of 300 characters: cut at the buffer's end.
    std::string line = "delay";
    for (int i = 1; i < 20; i++)
        line += " " + std::string(300, static_cast<char>('a' + i));
    EXPECT_EQ(agent_run(line, &r), 0u);
    EXPECT_EQ(strlen(dagt_summary), DAGT_SUMMARY_LEN - 1);
    EXPECT_EQ(std::string(dagt_summary, 32), "Success to run command: delay->b");
}

TEST_F(ParserTest, BadBytesNeverCrash) {
    std::string binary;
    for (int c = 1; c < 256; c++)
        binary += static_cast<char>(c);
    const struct {
        std::string line;
        uint32_t code;
    } cases[] = {
        {"x", 104},
        {std::string(255, 'a'), 104},
        {binary, 104},  // the first token is "\x01...\x08"
        {"stm get " + std::string(300, 's'), 2},
        {"info get " + std::string(300, 'v'), 9},
        {"stm \xff\xfe", 9},
        {"stm get state\"\"\"", 0},
    };
    for (const auto &c : cases) {
        dagt_result r = {};
        EXPECT_EQ(agent_run(c.line, &r), c.code) << c.line.size();
    }
}

// Codes up to 19 are stored (19 has no message); the QMI codes and anything
// above are dropped.
TEST(ResultTest, AcceptedCodesAndBoundedAnswers) {
    dagt_result r = marked_result();
    dagt_set_error(&r, 19);
    EXPECT_EQ(r.code, 19);
    EXPECT_EQ(r.text_len, 0);
    for (uint32_t code : {20u, 100u, 111u, 112u, 113u, 0xffffffffu}) {
        r = marked_result();
        dagt_set_error(&r, code);
        EXPECT_EQ(r.code, 7) << code;
        EXPECT_STREQ(r.text, "old");
    }
    dagt_set_answer(&r, std::string(400, 'z').c_str());
    EXPECT_EQ(strlen(r.text), 255u);
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

// The rooted echo, the silent pass and failing echoes are covered by the
// commands; these are the cases no command reaches.
TEST_F(ParserTest, SetStateWordsAndOverlongCommands) {
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
