// A pipe node switched on over the control socket: the real daemon starts its
// worker, the provider's output lands in the node's files, a new-file request
// and a disable take effect.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <set>
#include <string>

#include "tests/e2e/daemon_fixture.h"
#include "tests/support/conf_text.h"

namespace {

TEST(CaptureE2E, NodeSwitchedOnOverTheSocketStartsLogging) {
    DaemonFixture d;
    d.write_config(make_conf("1", "size=\"0\" log_path=\"/sdcard/logs/\"",
                             "<Ticker logname=\"Ticker\" enable=\"0\" logtype=\"128\" "
                             "log_filepath=\"Ticker/tick\" log_provider=\"i=0; while :; do "
                             "i=$((i+1)); echo tick$i; sleep 0.2; done\"/>\n"));
    ASSERT_TRUE(d.start()) << d.log();
    auto file = [&](size_t i) {  // the i-th file of the node, in name order
        std::set<std::string> names;
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(d.at("/sdcard/logs/Ticker"), ec))
            names.insert(e.path());
        return i < names.size() ? read_file(*std::next(names.begin(), i)) : "";
    };
    auto has = [&](size_t i, const char *text) {
        for (int waited = 0; waited < 8000; waited += 100, usleep(100 * 1000)) {
            if (file(i).find(text) != std::string::npos)
                return true;
        }
        return false;
    };

    d.exchange(ctrl_msg(VORN_MSG_SET_NODE, "Ticker", 1));
    ASSERT_TRUE(has(0, "tick3\n"));  // dispatcher (1 s), then the worker's poll (3 s)
    d.exchange(ctrl_msg(VORN_MSG_SET_NODE, "Ticker", 3));  // same state, new-file bit
    ASSERT_TRUE(has(1, "\n"));
    size_t mark = d.log_mark();
    d.exchange(ctrl_msg(VORN_MSG_SET_NODE, "Ticker", 0));
    EXPECT_FALSE(d.wait_for_log(" E vornd   : pstat = 0x00000001, pid = ", 8000, mark).empty());
    EXPECT_NE(d.working_xml().find("enable=\"0\""), std::string::npos);
    // Both files together: every line once, in order.
    std::string all = file(0) + file(1), expect;
    for (int i = 1; expect.size() < all.size(); i++)
        expect += "tick" + std::to_string(i) + "\n";
    EXPECT_EQ(all, expect);
}

}  // namespace
