// A flood of 100 node changes: every one is acknowledged at once, and the
// dispatch thread applies them all, in arrival order, one a second.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/daemon_fixture.h"
#include "tests/support/conf_text.h"

namespace {

// The thread id field of a threadtime line.
std::string tid_of(const std::string &line) {
    std::istringstream in(line);
    std::string date, time, pid, tid;
    in >> date >> time >> pid >> tid;
    return tid;
}

TEST(FloodTest, HundredChangesAreAllAppliedInOrderOneASecond) {
    const char *names[] = {"N0", "N1", "N2", "N3"};
    std::string nodes;
    for (const char *n : names)
        nodes += pipe_node(n);
    DaemonFixture d;
    d.write_config(make_conf("1", "enable=\"0\"", nodes));
    ASSERT_TRUE(d.start()) << d.log();

    // Every change differs from the node's state (a new mask), so each one is
    // applied; the node sequence is irregular so that reordering shows.
    std::vector<std::string> sent;
    std::string last_mask[4];
    size_t mark = d.log_mark();
    int acked = 0;
    for (int i = 0; i < 100; i++) {
        int node = (i * 7 + i / 10) % 4;
        char mask[16];
        snprintf(mask, sizeof mask, "f%03d", i);
        CtrlExchange r = d.exchange(ctrl_msg(VORN_MSG_SET_NODE, names[node], i % 3 != 0, mask));
        acked += r.reply.size() == 256 && static_cast<uint8_t>(r.reply[0]) == 0x80;
        sent.push_back(names[node]);
        last_mask[node] = mask;
    }
    EXPECT_EQ(acked, 100);

    // Queries are served on the main thread while the list drains.
    CtrlExchange q = d.exchange(ctrl_msg(VORN_MSG_QUERY_NODE, "N0"));
    EXPECT_EQ(q.reply.size(), 256u);

    size_t next = mark;
    std::vector<long long> applied_ms;
    for (int i = 0; i < 100; i++) {
        std::string line = d.wait_for_log("Got pending cmd", 5000, next, &next);
        ASSERT_FALSE(line.empty()) << "command " << i << " was not taken";
        applied_ms.push_back(log_line_ms(line));
    }
    // The last one's op runs after its write-back.
    EXPECT_FALSE(d.wait_for_log("D vornd   : vorn_node_", 5000, next).empty());
    for (size_t i = 1; i < applied_ms.size(); i++)
        EXPECT_GE(applied_ms[i] - applied_ms[i - 1], 999) << "command " << i;

    // The dispatch thread's lookups name the nodes in the order sent.
    std::string dispatcher = tid_of(d.log_lines("Got pending cmd", mark).front());
    std::vector<std::string> found;
    for (const auto &line : d.log_lines("D vornd   : find ", mark)) {
        if (tid_of(line) == dispatcher)
            found.push_back(line.substr(line.find(": find ") + 7, 2));
    }
    EXPECT_EQ(found, sent);

    std::string xml = d.working_xml();
    for (int n = 0; n < 4; n++) {
        EXPECT_NE(xml.find("mask=\"" + last_mask[n] + "\""), std::string::npos) << names[n];
    }
    EXPECT_TRUE(d.alive());
}

}  // namespace
