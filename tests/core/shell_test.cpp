// The shell runner's status cases and the broadcast retries.
#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/command_line.h"
#include "core/shell.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

namespace {

TEST(ShellTest, RunCommandReturnsTheRawStatusAndLogsHowItEnded) {
    struct Case {
        const char *cmd;
        int status;
        std::vector<std::pair<int, std::string>> logged;  // priority, message
    } cases[] = {
        {"exit 0", 0, {}},
        {"exit 2", 512, {}},
        {"kill -9 $$", 9, {{ANDROID_LOG_ERROR, "command(kill -9 $$) terminated by signal 9\n"}}},
        // Status 1 logs both messages.
        {"kill -1 $$",
         1,
         {{ANDROID_LOG_DEBUG, "Empty command \n"},
          {ANDROID_LOG_ERROR, "command(kill -1 $$) terminated by signal 1\n"}}},
    };
    LogCapture log;
    for (const auto &c : cases) {
        log.clear();
        EXPECT_EQ(run_command(c.cmd), c.status) << c.cmd;
        auto lines = log.lines();
        ASSERT_EQ(lines.size(), c.logged.size()) << c.cmd << "\n" << log.dump();
        for (size_t i = 0; i < lines.size(); i++) {
            EXPECT_EQ(lines[i].prio, c.logged[i].first) << c.cmd;
            EXPECT_EQ(lines[i].msg, c.logged[i].second) << c.cmd;
        }
    }
}

TEST(ShellTest, WordsWithMetacharactersStayOneLiteralWord) {
    TempRoot dir;
    const std::string out = dir.path() + "/out";
    for (std::string word :
         {"/a dir/x", "", "$(touch pwned)", "`id`;x|y&z>w", "it's \"q\" \\n", "~"}) {
        EXPECT_EQ(run_command(("printf %s " + shell_word(word) + " > " + shell_word(out)).c_str()),
                  0);
        EXPECT_EQ(read_file(out), word);
        std::string dq = "printf %s \"" + shell_dquoted(word) + "\" > " + shell_word(out);
        EXPECT_EQ(run_command(dq.c_str()), 0);
        EXPECT_EQ(read_file(out), word);
    }
    EXPECT_FALSE(dir.exists("/pwned"));
}

// The daemon's own lines are split into words, never handed to a shell: the
// words shell_word and shell_dquoted make come back exactly, and a line with
// anything a shell would act on is refused before anything runs.
TEST(ShellTest, DaemonLinesAreSplitIntoWordsOrRefused) {
    std::vector<std::string> words;
    for (std::string word : {"/a dir/x", "$(touch pwned)", "`id`;x|y&z>w", "it's \"q\" \\n"}) {
        ASSERT_TRUE(split_command_line(("echo " + shell_word(word) + " > /f").c_str(), &words));
        EXPECT_EQ(words, (std::vector<std::string>{"echo", word, ">", "/f"}));
        ASSERT_TRUE(split_command_line(("am \"" + shell_dquoted(word) + "\"").c_str(), &words));
        EXPECT_EQ(words, (std::vector<std::string>{"am", word}));
    }
    ASSERT_TRUE(split_command_line(" echo 3  4 >/sys/x", &words));
    EXPECT_EQ(words, (std::vector<std::string>{"echo", "3", "4", ">", "/sys/x"}));
    for (const char *line :
         {"echo 1; touch /p", "echo $(id) > /f", "echo `id` > /f", "echo a | sh", "echo a && b",
          "echo \"$HOME\"", "echo 'open", "echo a\ntouch /p", "echo * > /f", "echo 1 > /f # c"})
        EXPECT_FALSE(split_command_line(line, &words)) << line;
}

TEST(ShellTest, EchoLinesWriteWithoutAShell) {
    TempRoot dir;
    LogCapture log;
    const std::string out = dir.path() + "/out", q = shell_word(out);
    EXPECT_EQ(run_daemon_line(("echo 0x1 > " + q).c_str()), 0);
    EXPECT_EQ(read_file(out), "0x1\n");
    EXPECT_EQ(run_daemon_line(("echo 3  4 > " + q).c_str()), 0);
    EXPECT_EQ(read_file(out), "3 4\n");
    EXPECT_EQ(run_daemon_line((" echo -n 'file a.c +p' > " + q).c_str()), 0);
    EXPECT_EQ(read_file(out), "file a.c +p");
    // A missing directory fails as the redirect did, with errno saying why.
    errno = 0;
    EXPECT_NE(run_daemon_line(("echo 1 > " + dir.path() + "/no/such").c_str()), 0);
    EXPECT_EQ(errno, ENOENT);
    // Refused lines run nothing and write nothing.
    const std::string pwned = dir.path() + "/pwned";
    EXPECT_NE(run_daemon_line(("echo 1 > " + q + "; touch " + pwned).c_str()), 0);
    EXPECT_NE(run_daemon_line(("touch " + pwned + " > " + q).c_str()), 0);
    EXPECT_NE(run_daemon_line(("echo 1 > " + q + " > " + q).c_str()), 0);
    EXPECT_FALSE(dir.exists("/pwned"));
    EXPECT_EQ(read_file(out), "file a.c +p");
    // Other programs run from PATH with their words as arguments.
    EXPECT_EQ(run_daemon_line(("touch '" + dir.path() + "/a b'").c_str()), 0);
    EXPECT_TRUE(dir.exists("/a b"));
    EXPECT_EQ(run_daemon_line("no-such-program-here"), 127 << 8);
}

TEST(ShellTest, BroadcastRetriesUntilAmSucceedsAtMostFourRuns) {
    TempRoot dir;
    const std::string am_log = dir.path() + "/am.log", old_path = getenv("PATH");
    setenv("PATH", (dir.path() + "/bin:" + old_path).c_str(), 1);
    LogCapture log;
    for (auto [fails, runs] : {std::pair{0, 1}, {2, 3}, {100, 4}}) {
        // An am that records its arguments and fails its first `fails` runs.
        write_file(dir.path() + "/bin/am", "#!/bin/sh\necho \"$*\" >>'" + am_log +
                                               "'\n[ $(wc -l <'" + am_log + "') -gt " +
                                               std::to_string(fails) + " ] || exit 1\n");
        chmod((dir.path() + "/bin/am").c_str(), 0755);
        remove(am_log.c_str());
        send_broadcast(VORN_BROADCAST_ACTION, "--ei result 0 --es para \"UPLOAD\"");
        std::string recorded = read_file(am_log);
        EXPECT_EQ(std::count(recorded.begin(), recorded.end(), '\n'), runs) << fails << " failing";
        EXPECT_EQ(recorded.substr(0, recorded.find('\n') + 1),
                  "broadcast -a action.kymbal.from_vornd --ei result 0 --es para UPLOAD\n");
    }
    setenv("PATH", old_path.c_str(), 1);
    EXPECT_EQ(log.count("broadcast: am broadcast -a action.kymbal.from_vornd --ei result 0 --es "
                        "para \"UPLOAD\""),
              3u);
}

// Programs the daemon starts get SIGKILL when it dies, however it dies: a
// forked stand-in for the daemon is killed and its child must go too.
TEST(ShellTest, ChildrenDieWithTheDaemon) {
    TempRoot dir;
    const std::string pidfile = dir.path() + "/pid";
    pid_t daemon = fork();
    ASSERT_GE(daemon, 0);
    if (daemon == 0) {
        run_program({"sh", "-c", "echo $$ > " + pidfile + "; exec sleep 60"});
        _exit(0);
    }
    ASSERT_TRUE(wait_until([&] { return !read_file(pidfile).empty(); }, 5000, 10));
    pid_t pid = atoi(read_file(pidfile).c_str());
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
    // Reaped by init once it died; a zombie counts as gone too.
    EXPECT_TRUE(wait_until([&] { return process_gone(pid); }, 5000, 10))
        << "child " << pid << " outlived its parent";
}

}  // namespace
