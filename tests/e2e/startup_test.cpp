// The real vornd's options and start-up exit paths, as a tester sees them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/conf_text.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"

namespace {

TEST(StartupTest, HelpVersionAndUsageErrors) {
    const std::string vornd = build_binary("vornd");
    ProcessResult help = run_process({vornd, "--help"}, 5000);
    EXPECT_EQ(help.exit_status, 0);
    EXPECT_NE(help.out.find("--root DIR"), std::string::npos);
    ProcessResult version = run_process({vornd, "--version"}, 5000);
    EXPECT_EQ(version.exit_status, 0);
    EXPECT_EQ(version.out.rfind("vornd ", 0), 0u);
    for (std::string bad : {"--bogus", "--root", "extra", "--log-level", "--log-level X",
                            "--log-level=F", "--log-level DE"}) {
        ProcessResult r = run_process(words_of(vornd + " " + bad), 5000);
        EXPECT_EQ(r.exit_status, 2) << bad;
        EXPECT_NE(r.err.find("Usage: vornd"), std::string::npos) << bad;
    }
}

TEST(StartupTest, LogLevelKeepsLowerPrioritiesOffStderr) {
    DaemonFixture d;
    d.write_config(make_conf("1", "", pipe_node("Dmesg")));
    ASSERT_TRUE(d.start(10000, {"--log-level", "w"})) << d.log();
    d.exchange(ctrl_msg(VORN_MSG_QUERY_NODE, "Nope"));
    EXPECT_FALSE(d.wait_for_log(" E vornd   : Can't find valid index for logname (Nope)").empty());
    EXPECT_EQ(d.log().find(" D vornd"), std::string::npos) << d.log();
    EXPECT_EQ(d.log().find(" I vornd"), std::string::npos) << d.log();
    d.stop();
    // The default prints every priority.
    size_t mark = d.log_mark();
    ASSERT_TRUE(d.start(10000, {"--log-level=V"})) << d.log();
    EXPECT_FALSE(d.wait_for_log(" I vornd   : Total 2 vornd nodes", 1000, mark).empty());
    EXPECT_FALSE(d.wait_for_log(" D vornd   : After listen", 1000, mark).empty());
}

TEST(StartupTest, MissingSystemConfigurationExitsWith255) {
    DaemonFixture d;
    d.write("/data/vorn-conf.xml", make_conf("1", "", pipe_node("Dmesg")));
    EXPECT_FALSE(d.start());
    EXPECT_EQ(d.exit_status(), 255);
    EXPECT_FALSE(d.wait_for_log(" E vornd   : Can't find /etc/vorn-conf.xml", 0).empty());
    EXPECT_FALSE(d.wait_for_log("return: -1, error:", 0).empty());
}

TEST(StartupTest, BindFailureReachesTheServingLoopAndEndsAtAccept) {
    DaemonFixture d;
    rmdir(d.at("/dev/socket").c_str());
    d.write_config(make_conf("1", "", pipe_node("Dmesg")));
    d.start();  // it may or may not still be up once it has listened
    wait_until([&] { return !d.alive(); }, 10000, 10);
    EXPECT_EQ(d.exit_status(), 255);
    EXPECT_FALSE(
        d.wait_for_log("Failed to bind socket.  err:No such file or directory", 0).empty());
    EXPECT_FALSE(d.wait_for_log("Failed to accept socket.", 0).empty());
    // The revert copied the system file into place before the socket.
    EXPECT_TRUE(d.exists("/data/vorn-conf.xml"));
    // Every line on stderr is a threadtime log line.
    for (const std::string &line : lines_of(d.log())) {
        EXPECT_TRUE(line.size() > 33 && line[2] == '-' && line[5] == ' ' && line[8] == ':' &&
                    line[14] == '.')
            << line;
    }
}

}  // namespace
