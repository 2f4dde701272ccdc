// Node changes through the dispatch thread, as a client, the working file and
// the log files see them: order and pacing, write-back, a worker started, and
// what a restart finds.
#include <gtest/gtest.h>

#include <string>

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

    // Two changes sent back to back (their order and pacing: see the flood test).
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

}  // namespace
