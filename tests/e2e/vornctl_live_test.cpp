// vornctl against a daemon that captures: what status reads from the files,
// --wait on node changes, tail -f across roll-overs, and the bash completion.
// One daemon start for all of it: its workers poll every 3 s.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/conf_text.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::MatchesRegex;

// A node element with its own provider (run by the shell, so quotes are XML's).
std::string node(const std::string &name, const std::string &dir, int enable, int size,
                 const std::string &provider) {
    return "  <" + name + " logname=\"" + name + "\" enable=\"" + std::to_string(enable) +
           "\" logtype=\"128\" size=\"" + std::to_string(size) + "\" log_provider=\"" + provider +
           "\" log_filepath=\"" + dir + "/" + dir + "\"/>\n";
}

class VornctlLiveTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Fast rolls over every 300 bytes, about three times a second.
        std::string counter =
            "exec sh -c 'i=0; while :; do echo line $i; i=$((i+1)); "
            "[ $((i % 10)) = 0 ] &amp;&amp; sleep 0.1; done'";
        std::string nodes =
            node("Ticker", "Ticker", 1, 1048576,
                 "exec sh -c 'while :; do echo tick; sleep 0.3; done'") +
            node("Broken", "Broken", 1, 1048576, "exec /no/such/program") +
            node("Fast", "Fast", 1, 3000, counter) +
            node("Idle", "Idle", 0, 1048576,
                 "exec sh -c 'i=0; while :; do echo idle $i; i=$((i+1)); sleep 0.5; done'") +
            node("Blocked", "Blocked", 0, 1048576, "exec sh -c 'echo never'");
        d.write_config(make_conf("1", "size=\"10485760\" log_path=\"/sdcard/logs/\"", nodes));
        // A file where Blocked's directory should go: its worker can open no file.
        d.write("/sdcard/logs/Blocked", "in the way\n");
        ASSERT_TRUE(d.start()) << d.log();
    }

    ProcessResult ctl(const std::vector<std::string> &args, int status) {
        ProcessResult r = d.vornctl(args);
        EXPECT_EQ(r.exit_status, status) << args[0] << ": " << r.out << r.err;
        return r;
    }

    // The bash completion's answer for the words typed so far (the last one
    // being completed).
    std::string complete(const std::vector<std::string> &words) {
        std::string script =
            "source '" + build_binary("share/bash-completion/completions/vornctl") +
            "'; COMP_WORDS=('" + build_binary("vornctl") + "' --root '" + d.path() + "'";
        for (const std::string &w : words)
            script += " '" + w + "'";
        script += "); COMP_CWORD=" + std::to_string(words.size() + 2) +
                  "; _vornctl; echo \"${COMPREPLY[*]}\"";
        ProcessResult r = run_process({"/bin/bash", "-c", script}, 10000);
        EXPECT_EQ(r.exit_status, 0) << r.err;
        return r.out;
    }

    DaemonFixture d;
};

TEST_F(VornctlLiveTest, StatusWaitTailAndCompletion) {
    // Followed from before its first file: every line, across every roll-over.
    BackgroundProcess tail({build_binary("vornctl"), "--root", d.path(), "tail", "-f", "Fast"});

    // enable --wait returns once the worker has opened a new file.
    ProcessResult r = ctl({"enable", "--wait", "Idle"}, 0);
    ASSERT_THAT(r.out,
                MatchesRegex("Idle enabled after [0-9.]+ s: writing Idle/Idle\\.[0-9_-]+\n"));
    std::string first = r.out.substr(r.out.find("Idle/"), r.out.size() - r.out.find("Idle/") - 1);
    EXPECT_TRUE(d.exists("/sdcard/logs/" + first));
    EXPECT_EQ(ctl({"enable", "--wait", "Idle"}, 0).out.rfind("Idle was already enabled", 0), 0u);

    r = ctl({"new-file", "--wait", "Idle"}, 0);
    ASSERT_THAT(r.out, MatchesRegex("Idle: new file Idle/Idle\\.[0-9_-]+ after [0-9.]+ s "
                                    "\\(closed Idle/Idle\\.[0-9_-]+\\)\n"));
    std::string second = r.out.substr(15, r.out.find(' ', 15) - 15);
    EXPECT_NE(second, first);
    EXPECT_NE(r.out.find("(closed " + first + ")"), std::string::npos) << r.out;

    r = ctl({"--json", "disable", "--wait", "Idle"}, 0);
    EXPECT_NE(r.out.find("\"change\":\"disable\",\"changed\":true,"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"enabled\":0,\"file\":null,\"closed\":[\"" + second + "\"]}"),
              std::string::npos)
        << r.out;

    // The reply changes, but no file can be opened: exit 1 with what was seen.
    r = ctl({"enable", "--wait", "--timeout", "3", "Blocked"}, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "vornctl: Blocked: enable not seen within 3 s: the daemon reports enabled=1 mask "
              "\"\"; no new file in Blocked\n");

    // Broken's worker opened a file and its provider never wrote to it.
    std::string status;
    EXPECT_TRUE(wait_until(
        [&] {
            status = ctl({"status"}, 0).out;
            return status.find("stalled (enabled, no output for") != std::string::npos;
        },
        15000, 500))
        << status;
    std::vector<std::string> lines = lines_of(status);
    ASSERT_EQ(lines.size(), 11u) << status;
    EXPECT_THAT(lines[2],
                MatchesRegex("     writing: Ticker/Ticker\\.[0-9_-]+, [0-9.]+ (B|KiB), "
                             "last write [0-9] s ago; 1 file, [0-9.]+ (B|KiB) of 1.0 MiB"));
    EXPECT_THAT(lines[4], MatchesRegex("     stalled \\(enabled, no output for [0-9]+ s\\): "
                                       "Broken/Broken\\.[0-9_-]+, 0 B, nothing written; "
                                       "1 file, 0 B of 1.0 MiB"));
    EXPECT_THAT(lines[6],
                MatchesRegex("     writing: Fast/Fast\\..*; 10 files, [0-9.]+ KiB of 2.9 KiB"));
    EXPECT_THAT(lines[8], MatchesRegex("     off: Idle/Idle\\..*; 2 files, .*"));
    EXPECT_THAT(lines[10], MatchesRegex("     (starting|stalled .*): no log files yet "
                                        "\\(budget 1.0 MiB\\)"));
    EXPECT_THAT(ctl({"--json", "status"}, 0).out,
                ContainsRegex("\"name\":\"Broken\",[^}]*\"state\":\"stalled\",\"stalled\":true,"
                              "\"file\":\"Broken/Broken\\.[0-9_-]+\",\"file_size\":0,"
                              "\"last_write_age\":null,\"open\":true,"));

    // The idle node's file is complete: tail -n prints its last lines.
    std::vector<std::string> idle = lines_of(d.read("/sdcard/logs/" + second));
    ASSERT_GE(idle.size(), 2u);
    EXPECT_EQ(ctl({"tail", "-n", "2", "Idle"}, 0).out,
              idle[idle.size() - 2] + "\n" + idle.back() + "\n");
    EXPECT_EQ(ctl({"tail", "Broken"}, 0).out, "");
    EXPECT_NE(ctl({"tail", "Nope"}, 1).err.find("unknown node Nope"), std::string::npos);

    // tail -f: the counter's lines in order, none lost or repeated, across
    // roll-overs (a file holds about 33 of them).
    EXPECT_TRUE(wait_until([&] { return lines_of(tail.out()).size() >= 200; }, 15000, 100));
    tail.stop();
    std::string out = tail.out();
    std::vector<std::string> followed = lines_of(out.substr(0, out.rfind('\n') + 1));
    ASSERT_GE(followed.size(), 200u);
    for (size_t i = 0; i < followed.size(); i++)
        ASSERT_EQ(followed[i], "line " + std::to_string(i)) << "line " << i;

    EXPECT_EQ(complete({"en"}), "enable\n");
    EXPECT_EQ(complete({"tail", ""}), "Ticker Broken Fast Idle Blocked\n");
    EXPECT_EQ(complete({"disable", "--json", "B"}), "Broken Blocked\n");
    EXPECT_EQ(complete({"tail", "-"}), "-f -n --json --timeout\n");
    EXPECT_EQ(complete({"tail", "Fast", ""}), "\n");
}

}  // namespace
