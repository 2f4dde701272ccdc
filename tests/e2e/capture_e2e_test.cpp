// A pipe node switched on over the control socket: the real daemon starts its
// worker, the provider's output lands in the node's files, a new-file request
// and a disable take effect.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "tests/core/daemon_state.h"
#include "tests/e2e/daemon_fixture.h"
#include "tests/support/temp_root.h"

namespace {

std::vector<std::string> names_in(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d)) {
            if (e->d_name[0] != '.')
                names.emplace_back(e->d_name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool thread_named(pid_t pid, const std::string &name) {
    std::string task = "/proc/" + std::to_string(pid) + "/task";
    for (const auto &tid : names_in(task)) {
        if (read_file(task + "/" + tid + "/comm") == name + "\n")
            return true;
    }
    return false;
}

template <typename Pred>
bool eventually(Pred pred, int timeout_ms) {
    for (int waited = 0; waited < timeout_ms; waited += 100) {
        if (pred())
            return true;
        usleep(100 * 1000);
    }
    return pred();
}

TEST(CaptureE2E, NodeSwitchedOnOverTheSocketStartsLogging) {
    DaemonFixture d;
    d.write_config(
        make_conf("1", "enable=\"1\" size=\"0\" log_path=\"/sdcard/logs/\"",
                  "  <Ticker logname=\"Ticker\" enable=\"0\" logtype=\"128\" size=\"0\" "
                  "log_provider=\"i=0; while :; do i=$((i+1)); echo tick$i; sleep 0.2; done\" "
                  "log_filepath=\"Ticker/tick\"/>\n"));
    ASSERT_TRUE(d.start()) << d.log();
    std::string dir = d.at("/sdcard/logs/Ticker");
    auto file = [&](size_t i) {
        auto names = names_in(dir);
        return i < names.size() ? read_file(dir + "/" + names[i]) : std::string();
    };

    ASSERT_EQ(d.exchange(ctrl_msg(VORN_MSG_SET_NODE, "Ticker", 1)).reply[0], '\x80');
    // A second for the dispatcher, 3 s for the worker's first poll.
    ASSERT_TRUE(eventually([&] { return file(0).find("tick3\n") != std::string::npos; }, 8000))
        << d.log();
    EXPECT_TRUE(thread_named(d.pid(), "vornd_Ticker"));

    // Same state and mask, new-file bit: the next output goes to a new file.
    d.exchange(ctrl_msg(VORN_MSG_SET_NODE, "Ticker", 3));
    ASSERT_TRUE(eventually([&] { return file(1).find("\n") != std::string::npos; }, 8000))
        << d.log();

    size_t mark = d.log_mark();
    d.exchange(ctrl_msg(VORN_MSG_SET_NODE, "Ticker", 0));
    EXPECT_FALSE(d.wait_for_log(" E vornd   : pstat = 0x00000001, pid = ", 8000, mark).empty());
    EXPECT_NE(d.working_xml().find("enable=\"0\""), std::string::npos);

    // Both files together: every line once, in order.
    auto names = names_in(dir);
    ASSERT_EQ(names.size(), 2u);
    std::string all = file(0) + file(1);
    int lines = static_cast<int>(std::count(all.begin(), all.end(), '\n'));
    std::string expect;
    for (int i = 1; i <= lines; i++)
        expect += "tick" + std::to_string(i) + "\n";
    EXPECT_EQ(all, expect);
}

}  // namespace
