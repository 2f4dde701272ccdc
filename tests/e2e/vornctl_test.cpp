// vornctl against the real daemon: output, exit statuses and error lines.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/conf_text.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"

namespace {

using namespace std::string_literals;

class VornctlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Gone lacks a provider: the daemon drops it at load.
        d.write_config(make_conf(
            "1", "enable=\"0\" loglevel=\"2\" time=\"30\" size=\"4096\" log_path=\"/sdcard/logs/\"",
            pipe_node("Alpha", "loglevel=\"3\" size=\"2048\" mask=\"m1\"") + pipe_node("Beta") +
                "  <Gone logname=\"Gone\" enable=\"0\" logtype=\"128\"/>\n"));
        ASSERT_TRUE(d.start()) << d.log();
    }

    // Runs vornctl and checks its exit status and that stderr is empty on
    // success and one line otherwise.
    ProcessResult ctl(const std::vector<std::string> &args, int status) {
        ProcessResult r = d.vornctl(args);
        std::string what = args.empty() ? "" : args[0];
        EXPECT_EQ(r.exit_status, status) << what << ": " << r.out << r.err;
        if (status == 0) {
            EXPECT_EQ(r.err, "") << what;
        } else {
            EXPECT_EQ(r.err.rfind("vornctl: ", 0), 0u) << what << ": " << r.err;
            EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << what << ": " << r.err;
        }
        return r;
    }

    // Waits until query NAME prints text.
    bool wait_query(const std::string &name, const std::string &text) {
        return wait_until(
            [&] {
                return d.vornctl({"query", name}).out.find(text) != std::string::npos;
            },
            5000, 100);
    }

    DaemonFixture d;
};

TEST_F(VornctlTest, NodeAndGlobalCommands) {
    EXPECT_EQ(ctl({"query", "Alpha"}, 0).out,
              "slot=1 name=Alpha enabled=0 level=3 time=0 size=2048 mask=m1\n");
    EXPECT_EQ(ctl({"--json", "query", "Alpha"}, 0).out,
              "{\"slot\":1,\"name\":\"Alpha\",\"enabled\":0,\"level\":3,\"time\":0,\"size\":2048,"
              "\"mask\":\"m1\"}\n");
    EXPECT_NE(ctl({"query", "Nope"}, 1).err.find("unknown node Nope"), std::string::npos);
    EXPECT_EQ(ctl({"global"}, 0).out,
              "enabled=0 level=2 time=30 size=4096 log_path=/sdcard/logs/\n");

    // enable keeps the current mask unless given one; the change lands within
    // the dispatcher's second.
    ctl({"enable", "Alpha", "--mask", "m2"}, 0);
    EXPECT_TRUE(wait_query("Alpha", "enabled=1 level=3 time=0 size=2048 mask=m2"));
    ctl({"new-file", "Alpha"}, 0);
    ctl({"disable", "Alpha"}, 0);
    EXPECT_TRUE(wait_query("Alpha", "enabled=0 level=3 time=0 size=2048 mask=m2"));
    // The new-file request carried bit 1 and the unchanged state.
    EXPECT_FALSE(d.log_lines("enable is 3").empty());
    EXPECT_EQ(ctl({"disable", "Nope"}, 1).out, "");

    EXPECT_EQ(ctl({"set-log-path", "/sdcard/other"}, 0).out, "log path is now /sdcard/other\n");
    EXPECT_EQ(ctl({"status"}, 0).out,
              "SLOT NAME            ENABLED LEVEL SIZE       MASK\n"
              "1    Alpha           0       3     2048       m2\n"
              "     off: no log files yet (budget 2.0 KiB)\n"
              "2    Beta            0       2     4096       \n"
              "     off: no log files yet (budget 4.0 KiB)\n"
              "-    Gone            -       -     -          -\n");

    std::string agent = ctl({"agent", "stm", "get", "state"}, 0).out;
    EXPECT_NE(agent.find("no reply"), std::string::npos);
    EXPECT_FALSE(d.wait_for_log("Message recieved size:256 type:7").empty());

    // Usage errors, and a socket nobody listens on.
    for (const std::string &line :
         {""s, "bogus"s, "query"s, "query a b"s, "--bogus status"s, "enable Alpha --mask"s,
          "disable Alpha --mask x"s, "enable Alpha --mask " + std::string(100, 'm'),
          "set-log-path " + std::string(117, 'p'), "agent"s, "agent " + std::string(255, 'a'),
          "archive Crash"s, "--timeout 0 global"s, "global --wait"s}) {
        ctl(words_of(line), 2);
    }
    EXPECT_EQ(ctl({"--help"}, 0).out.rfind("Usage: vornctl", 0), 0u);
    EXPECT_NE(ctl({"--socket", d.at("/dev/socket/none"), "global"}, 3).err.find("cannot connect"),
              std::string::npos);
    EXPECT_TRUE(d.alive());
}

TEST_F(VornctlTest, AgentSummaryFromTheLog) {
    std::string log = d.stderr_path();
    ProcessResult r =
        d.vornctl({"agent", "--follow-log", "--log", log, "--timeout", "3", "delay", "5"});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "Success to run command: delay->5;Resp: \n");
    r = d.vornctl({"agent", "--follow-log", "--log", log, "--timeout", "1", "foo"});
    EXPECT_EQ(r.exit_status, 1);  // an unknown word builds no summary line
}

TEST_F(VornctlTest, ArchiveAndItsBroadcast) {
    d.write("/sdcard/logs/crash/description_2016_01_02.txt", "why\n");
    d.write("/sdcard/logs/crash/ramdump.bin", std::string(10000, 'r'));
    ProcessResult r = ctl({"archive", "Crash", "/sdcard/logs/crash"}, 0);
    std::string upload = d.at("/sdcard/logs/upload/Crash");
    EXPECT_EQ(r.out, "archive of /sdcard/logs/crash will appear as " + upload +
                         "/log_2016_01_02.txt.zip\n");

    d.write("/sdcard/logs/crash2/description_2017_03_04.txt", "why\n");
    d.write("/sdcard/logs/crash2/ramdump.bin", "r");
    r = ctl({"archive", "--wait", "Crash", "/sdcard/logs/crash2"}, 0);
    EXPECT_EQ(r.out.rfind(upload + "/log_2017_03_04.txt.zip: ", 0), 0u) << r.out;
    EXPECT_NE(r.out.find(" bytes, 2 entries\n"), std::string::npos) << r.out;

    auto wait_broadcasts = [&](size_t n) {
        wait_until([&] { return d.broadcasts().size() >= n; }, 10000, 100);
        usleep(300000);  // and no more
        return d.broadcasts();
    };
    std::vector<std::string> sent = wait_broadcasts(2);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1], "broadcast -a action.kymbal.from_vornd --ei result 0 --es para UPLOAD");
    ctl({"archive", "Crash", "/sdcard/logs/no-such-dir"}, 0);
    sent = wait_broadcasts(3);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[2], "broadcast -a action.kymbal.from_vornd --ei result -3 --es para UPLOAD");

    // On a terminal (script gives it one) the archive's size grows against
    // the directory's; piped, as above, only the result line is printed.
    d.write("/sdcard/logs/crash3/description_2018_05_06.txt", "why\n");
    d.write("/sdcard/logs/crash3/ramdump.bin", std::string(50000, 'r'));
    std::string cmd = build_binary("vornctl") + " --root " + d.path() +
                      " archive --wait Crash /sdcard/logs/crash3";
    r = run_process({"/usr/bin/script", "-qec", cmd, "/dev/null"}, 30000);
    EXPECT_EQ(r.exit_status, 0) << r.out;
    EXPECT_NE(r.out.find("\rarchiving /sdcard/logs/crash3: 0 B of 49 KiB\033[K"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\r\033[K" + upload + "/log_2018_05_06.txt.zip: "), std::string::npos)
        << r.out;
}

// The manual pages are made from the programs' --help: every command and
// option listed there has its entry in the page.
TEST(ManualPages, HoldEveryCommandAndOptionOfTheHelp) {
    const std::pair<const char *, const char *> pages[] = {{"vornctl", "share/man/man1/vornctl.1"},
                                                           {"vornd", "share/man/man8/vornd.8"}};
    for (const auto &[program, page] : pages) {
        std::string roff = read_file(build_binary(page));
        if (roff.empty())
            GTEST_SKIP() << "no " << page
                         << ": help2man was not found when the build was configured";
        // Plain text: roff's "\-" is a dash, and font changes go.
        std::string text;
        for (size_t i = 0; i < roff.size(); i++) {
            if (roff.compare(i, 2, "\\-") == 0) {
                text += '-';
                i++;
            } else if (roff.compare(i, 2, "\\f") == 0) {
                i += 2;
            } else if (roff.compare(i, 2, "\\/") == 0 || roff.compare(i, 2, "\\,") == 0) {
                i++;
            } else {
                text += roff[i];
            }
        }
        ProcessResult help = run_process({build_binary(program), "--help"}, 5000);
        ASSERT_EQ(help.exit_status, 0);
        int entries = 0;
        for (const std::string &line : lines_of(help.out)) {
            // An entry: two blanks, then the command or option itself.
            if (line.size() < 3 || line.compare(0, 2, "  ") != 0 || line[2] == ' ')
                continue;
            std::string word = line.substr(2, line.find(' ', 2) - 2);
            EXPECT_NE(text.find(".TP\n" + word), std::string::npos) << program << ": " << word;
            entries++;
        }
        EXPECT_GE(entries, std::string(program) == "vornctl" ? 18 : 4) << help.out;
    }
}

}  // namespace
