// Node changes through the dispatch thread, as a client, the working file and
// the log files see them: write-back, a worker started, and what a restart
// finds; and a burst of changes, every one acknowledged at once and applied
// in arrival order, one a second (eight changes over four nodes in an
// irregular order show both the pacing and any reordering).
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/conf_text.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/wait.h"

namespace {

// An attribute of the working file's element tag ("<none>" when missing).
std::string attr(const std::string &xml, const std::string &tag, const std::string &name) {
    size_t el = xml.find("<" + tag + " ");
    size_t at = el == std::string::npos ? el : xml.find(" " + name + "=\"", el);
    if (at == std::string::npos || at > xml.find('>', el))
        return "<none>";
    at += name.size() + 3;
    return xml.substr(at, xml.find('"', at) - at);
}

TEST(DispatchTest, ChangesAreAppliedInOrderAndWrittenBack) {
    DaemonFixture d;
    d.write_config(make_conf(
        "1", "enable=\"0\" log_path=\"/sdcard/logs/\"",
        pipe_node("Alpha", "mask=\"a0\"") + pipe_node("Beta", "mask=\"b0\"") +
            "  <DumpParser logname=\"DumpParser\" enable=\"0\" logtype=\"32\" mask=\"dp\"/>\n"));
    ASSERT_TRUE(d.start()) << d.log();
    auto send = [&](const char *name, uint8_t enable, const char *mask) {
        CtrlExchange r = d.exchange(ctrl_msg(VORN_MSG_SET_NODE, name, enable, mask));
        EXPECT_EQ(r.reply, std::string(1, '\x80') + std::string(255, '\0')) << name;
    };

    // Two changes sent back to back (their order and pacing: FloodTest below).
    size_t mark = d.log_mark();
    send("Alpha", 1, "first");
    send("Beta", 1, "b2");
    ASSERT_FALSE(d.wait_for_log("vorn_node_enable: enable Beta", 5000, mark).empty());
    std::string xml = d.working_xml();
    EXPECT_EQ(attr(xml, "Alpha", "enable"), "1");
    EXPECT_EQ(attr(xml, "Alpha", "mask"), "first");
    EXPECT_EQ(attr(xml, "Beta", "mask"), "b2");
    // Alpha's worker, started over the socket, logs its provider's output.
    std::string alpha = d.at("/sdcard/logs/Alpha");
    wait_until([&] { return !dir_contents(alpha).empty(); }, 8000, 100);
    EXPECT_EQ(dir_contents(alpha).substr(0, 3), "hi\n");

    // A new-file request with the current state and mask writes nothing and
    // calls no op. The change after it proves it has been handled.
    FileSaves saves = d.working_saves();
    mark = d.log_mark();
    send("Alpha", 3, "first");
    send("Beta", 0, "b2");
    ASSERT_FALSE(d.wait_for_log("vorn_node_disable: disable Beta", 5000, mark).empty());
    EXPECT_TRUE(d.log_lines("enable Alpha", mark).empty());
    EXPECT_EQ(d.log_lines("Got pending cmd", mark).size(), 2u);
    EXPECT_EQ(saves.count(), 2);  // Beta's enable and mask, nothing for Alpha

    // The DumpParser element keeps its mask; its enable is written back even
    // when its op fails.
    mark = d.log_mark();
    send("DumpParser", 1, "/data/no-dump");
    ASSERT_FALSE(d.wait_for_log("vorn_node_enable: enable DumpParser", 5000, mark).empty());
    xml = d.working_xml();
    EXPECT_EQ(attr(xml, "DumpParser", "enable"), "1");
    EXPECT_EQ(attr(xml, "DumpParser", "mask"), "dp");

    // A changed log path is written and reported.
    EXPECT_EQ(d.exchange(log_path_msg("/sdcard/other/")).reply, "");
    EXPECT_FALSE(d.wait_for_log("GLOBAL logpath change to /sdcard/other/").empty());
    EXPECT_EQ(attr(d.working_xml(), "global", "log_path"), "/sdcard/other/");

    // The working file is the state a restart comes back to.
    EXPECT_TRUE(d.alive());
    d.stop();
    mark = d.log_mark();
    ASSERT_TRUE(d.start()) << d.log(mark);
    EXPECT_FALSE(d.wait_for_log("logid 1, enable 1 ,", 2000, mark).empty());
    EXPECT_FALSE(d.wait_for_log("logname Alpha ,mask first", 2000, mark).empty());
    CtrlExchange q = d.exchange(ctrl_msg(VORN_MSG_GET_GLOBAL));
    EXPECT_STREQ(q.reply.c_str() + VORN_MSG_GBL_LOG_PATH_OFF, "/sdcard/other/");
}

TEST(FloodTest, ChangesAreAllAppliedInOrderOneASecond) {
    constexpr int kChanges = 8;
    const char *names[] = {"N0", "N1", "N2", "N3"};
    DaemonFixture d;
    d.write_config(
        make_conf("1", "enable=\"0\"",
                  pipe_node("N0") + pipe_node("N1") + pipe_node("N2") + pipe_node("N3")));
    ASSERT_TRUE(d.start()) << d.log();

    // Every change differs from the node's state (a new mask), so each one is
    // applied; the node sequence is irregular so that reordering shows.
    std::vector<std::string> sent;
    std::string last_mask[4];
    size_t mark = d.log_mark();
    int acked = 0;
    for (int i = 0; i < kChanges; i++) {
        int node = (i * 3 + i / 4) % 4;
        last_mask[node] = "f" + std::to_string(i);
        CtrlExchange r = d.exchange(
            ctrl_msg(VORN_MSG_SET_NODE, names[node], i % 3 != 0, last_mask[node].c_str()));
        acked += r.reply.size() == 256 && static_cast<uint8_t>(r.reply[0]) == 0x80;
        sent.push_back(names[node]);
    }
    EXPECT_EQ(acked, kChanges);
    // Queries are served on the main thread while the list drains.
    EXPECT_EQ(d.exchange(ctrl_msg(VORN_MSG_QUERY_NODE, "N0")).reply.size(), 256u);

    size_t next = mark;
    long long last_ms = 0;
    for (int i = 0; i < kChanges; i++) {
        std::string line = d.wait_for_log("Got pending cmd", 5000, next, &next);
        ASSERT_FALSE(line.empty()) << "command " << i << " was not taken";
        EXPECT_TRUE(i == 0 || log_line_ms(line) - last_ms >= 999)
            << "command " << i << ": " << log_line_ms(line) - last_ms << " ms";
        last_ms = log_line_ms(line);
    }
    // The last one's op runs after its write-back.
    EXPECT_FALSE(d.wait_for_log("D vornd   : vorn_node_", 5000, next).empty());

    // The ops name the nodes in the order sent.
    std::vector<std::string> applied;
    for (const auto &line : d.log_lines("able N", mark))  // "enable N0", "disable N0"
        applied.push_back(line.substr(line.find("able N") + 5, 2));
    EXPECT_EQ(applied, sent);
    std::string xml = d.working_xml();
    for (int n = 0; n < 4; n++)
        EXPECT_NE(xml.find("mask=\"" + last_mask[n] + "\""), std::string::npos) << names[n];
}

// Stamps carry no year: differences across a day, a month end, New Year and
// the daylight-saving changes still come out right.
TEST(FloodTest, LogLineTimesKnowTheMonthAndYear) {
    struct tm jan = {};
    jan.tm_year = 126;
    jan.tm_mday = 2;
    jan.tm_hour = 12;
    jan.tm_isdst = -1;
    time_t now = mktime(&jan);  // 2026-01-02 12:00 local
    EXPECT_EQ(log_line_ms("01-01 00:00:00.400 x", now) - log_line_ms("12-31 23:59:59.500 x", now),
              900);
    EXPECT_EQ(log_line_ms("01-02 00:00:01.000 x", now) - log_line_ms("01-01 23:59:59.000 x", now),
              2000);
    jan.tm_mon = 3;  // 2026-04-02
    now = mktime(&jan);
    EXPECT_EQ(log_line_ms("03-01 00:00:00.000 x", now) - log_line_ms("02-28 23:59:59.000 x", now),
              1000);
    EXPECT_EQ(log_line_ms("no stamp", now), -1);

    // Central European time: forward an hour at 02:00 on 2026-03-29, back an
    // hour at 03:00 on 2026-10-25. The differences are real elapsed time.
    const char *tz = getenv("TZ");
    std::string saved_tz = tz ? tz : "";
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    jan.tm_mon = 10;  // 2026-11-02
    now = mktime(&jan);
    EXPECT_EQ(log_line_ms("03-29 03:00:00.400 x", now) - log_line_ms("03-29 01:59:59.500 x", now),
              900);
    EXPECT_EQ(log_line_ms("10-25 03:00:00.000 x", now) - log_line_ms("10-25 01:59:59.000 x", now),
              2 * 3600 * 1000 + 1000);
    if (tz != nullptr)
        setenv("TZ", saved_tz.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

}  // namespace
