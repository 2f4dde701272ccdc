// Choice of configuration file, revert, and how attributes fill the records;
// the shell runner's status cases, daemon lines run without a shell, and the
// broadcast retries.
#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/command_line.h"
#include "core/config.h"
#include "core/file_util.h"
#include "core/gbl_config.h"
#include "core/node.h"
#include "core/node_table.h"
#include "core/shell.h"
#include "tests/support/daemon_state.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

namespace {

class ConfigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_daemon_state();
        root.mkdir("/data");
    }
    void TearDown() override { reset_daemon_state(); }

    void write_system(const std::string &xml) { root.write(VORN_SYSTEM_CONF, xml); }
    void write_work(const std::string &xml) { root.write(VORN_WORK_CONF, xml); }
    std::string work() { return root.read(VORN_WORK_CONF); }

    // Loads the chosen document into the node table; returns the element count.
    int load() {
        int n = vorn_config_choose();
        if (n > 0) {
            EXPECT_EQ(vornd_load_nodes(n, false), 0);
        }
        return n;
    }

    TempRoot root;
    LogCapture log;
};

TEST_F(ConfigTest, ChoiceAndRevertOfTheWorkingCopy) {
    const std::string sys = make_conf("1.0", "enable=\"1\"", pipe_node("Dmesg"));
    const std::string kept = make_conf("1.0", "enable=\"1\"", pipe_node("Dmesg", "mask=\"kept\""));
    const std::string any = make_conf("7", "", pipe_node("Dmesg") + pipe_node("RPM"));
    struct Case {
        const char *name;
        std::string system, work;  // "" = no such file
        int result;                // of vorn_config_choose()
        std::string work_after;
        const char *message;  // logged, or null for a silent revert
    } cases[] = {
        {"same version kept", sys, kept, 2, kept, "Current system configuration file version 1.0"},
        {"version differs by one character", sys,
         make_conf("1.1", "enable=\"1\"", pipe_node("Dmesg")), 2, sys,
         "Configuration file version desn't match.  System requirement 1.0, current 1.1"},
        {"working copy without version", sys, make_conf(nullptr, "", pipe_node("Dmesg")), 2, sys,
         nullptr},
        {"working copy missing", sys, "", 2, sys, nullptr},
        {"working copy not XML", sys, "this is not xml", 2, sys, nullptr},
        {"working copy empty", sys, " ", 2, sys, nullptr},
        {"working copy without children", sys, "<vornconf version=\"1.0\"></vornconf>", 2, sys,
         "No log entry in log configuration file. Revert to default configuration file."},
        {"system copy without version", make_conf(nullptr, "", pipe_node("Dmesg")), any, 3, any,
         nullptr},
        {"system copy missing", "", kept, -1, kept, "Can't find /etc/vorn-conf.xml"},
        {"system copy unparsable", " ", kept, -1, kept, "Can't read root node. err is"},
        {"nothing usable remains", "<vornconf version=\"1.0\"/>", "", -1,
         "<vornconf version=\"1.0\"/>", "No log entry in log configuration file."},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        reset_daemon_state();
        log.clear();
        unlink(root.at(VORN_SYSTEM_CONF).c_str());
        unlink(root.at(VORN_WORK_CONF).c_str());
        if (!c.system.empty())
            write_system(c.system);
        if (!c.work.empty())
            write_work(c.work);
        EXPECT_EQ(vorn_config_choose(), c.result);
        EXPECT_EQ(work(), c.work_after);
        if (c.message) {
            EXPECT_TRUE(log.has_containing(c.message)) << log.dump();
        } else {
            EXPECT_FALSE(log.has_containing("desn't match"));
        }
    }
}

TEST_F(ConfigTest, GlobalElementDefaultsAndValuesCutToTheirFields) {
    write_system(make_conf(
        "1", "", "  <Dmesg logname=\"Dmesg\" log_provider=\"x\" log_filepath=\"d/d\"/>\n"));
    ASSERT_EQ(load(), 2);
    EXPECT_EQ(vorn_nodes[1].enable, 0) << "no enable anywhere";
    EXPECT_EQ(gbl_config.type, 0);
    EXPECT_EQ(gbl_config.enable, 1);
    EXPECT_EQ(gbl_config.loglevel, 0);
    EXPECT_EQ(gbl_config_time(), -1);
    EXPECT_EQ(gbl_config_size(), -1);
    EXPECT_STREQ(gbl_config.log_path, "/sdcard/logs/");

    const std::string path(200, 'p');
    reset_daemon_state();
    write_system(make_conf(
        "1", "enable=\"258\" loglevel=\"3\" time=\"7\" size=\"65536\" log_path=\"/" + path + "\"",
        pipe_node("Dmesg")));
    unlink(root.at(VORN_WORK_CONF).c_str());
    ASSERT_EQ(load(), 2);
    EXPECT_EQ(gbl_config.enable, 2);
    EXPECT_EQ(gbl_config.loglevel, 3);
    EXPECT_EQ(gbl_config_time(), 7);
    EXPECT_EQ(gbl_config_size(), 65536);
    EXPECT_EQ(std::string(gbl_config.log_path), "/" + path.substr(0, 115));
}

TEST_F(ConfigTest, NodeFieldEffects) {
    const std::string longname = "ABCDEFGHIJKLMNOPQRST";  // 20 characters
    const std::string longmask(150, 'm');
    write_system(make_conf(
        "1", "enable=\"1\" time=\"-1\" size=\"4096\"",
        // logtype 0x12345680: kind 0x80, and bits 8-31 overlay time's low 24 bits.
        "  <A logname=\"" + longname +
            "\" enable=\"257\" loglevel=\"514\" logtype=\"305419904\" "
            "log_provider=\"cat\" log_filepath=\"a/a\" mask=\"" +
            longmask +
            "\"/>\n"
            // time falls back to the global -1; logtype 128 then leaves 0xFF000000.
            "  <B logname=\"B\" logtype=\"128\" log_provider=\"cat\" log_filepath=\"b/b\"/>\n"
            "  <C logname=\"C\" time=\"5\" logtype=\"128\" enable=\"abc\" size=\"12x\" "
            "log_provider=\"cat\" log_filepath=\"c/c\"/>\n"));
    ASSERT_EQ(load(), 4);
    ASSERT_EQ(vorn_node_count, 4);

    const vorn_node &a = vorn_nodes[1];
    EXPECT_EQ(a.logid, 1);
    EXPECT_STREQ(a.logname, longname.substr(0, 15).c_str());
    EXPECT_EQ(a.enable, 1);
    EXPECT_EQ(a.loglevel, 2);
    EXPECT_EQ(a.logtype, 0x80);
    EXPECT_EQ(a.time, static_cast<int32_t>(0xFF123456));
    EXPECT_EQ(a.size, 4096);
    EXPECT_EQ(std::string(a.mask), longmask.substr(0, 99));
    EXPECT_EQ(a.pending_change, 1);

    const vorn_node &b = vorn_nodes[2];
    EXPECT_EQ(b.enable, 1) << "enable falls back to the global element";
    EXPECT_EQ(b.time, -16777216);
    EXPECT_EQ(b.mask_link, nullptr);

    const vorn_node &c = vorn_nodes[3];
    EXPECT_EQ(c.time, 0);
    EXPECT_EQ(c.enable, 0) << "atoi of a non-number";
    EXPECT_EQ(c.size, 12);
    EXPECT_STREQ(c.log_provider, "cat");

    // Clients read the same rows from the file, without a node table.
    std::vector<vorn_config_row> rows = vorn_config_rows(VORN_WORK_CONF);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].logname, longname.substr(0, 15));
    EXPECT_EQ(rows[0].logtype, 0x80);
    EXPECT_EQ(rows[2].log_filepath, "c/c");
    EXPECT_EQ(rows[2].log_provider, "cat");
    EXPECT_TRUE(vorn_config_rows("/data/none.xml").empty());
}

TEST_F(ConfigTest, BadOrHugeInputFailsStartUpOrLoadsWhatParsed) {
    std::string many;
    for (int i = 0; i < 300; i++)
        many += pipe_node("n" + std::to_string(i));
    const std::string huge(10000, 'x');
    struct Case {
        const char *name;
        std::string xml;
        int expect;  // vorn_config_choose() on a system copy alone
    } cases[] = {
        {"not XML", "hello world", -1},
        {"empty", "", -1},
        // The recover option keeps what parsed before the cut.
        {"truncated", make_conf("1", "", pipe_node("Dmesg")).substr(0, 90), 2},
        {"300 children", make_conf("1", "", many), 301},
        {"10,000-character values",
         make_conf("1", "log_path=\"" + huge + "\"",
                   "  <" + huge.substr(0, 20) + " logname=\"" + huge + "\" mask=\"" + huge +
                       "\" log_provider=\"" + huge + "\" log_filepath=\"" + huge + "\"/>\n"),
         2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        reset_daemon_state();
        write_system(c.xml);
        unlink(root.at(VORN_WORK_CONF).c_str());
        int n = vorn_config_choose();
        if (c.expect < 0) {
            EXPECT_LT(n, 0);
        } else {
            EXPECT_EQ(n, c.expect);
            ASSERT_EQ(vornd_load_nodes(n, false), 0);
            EXPECT_LE(strlen(gbl_config.log_path), 116u);
        }
    }
}

TEST_F(ConfigTest, CopyFile) {
    std::string big(5000, 'z');
    big[1023] = 'a';
    big[1024] = 'b';
    root.write("/data/src", big);
    EXPECT_EQ(copy_file("/data/dst", "/data/src"), 0);
    EXPECT_EQ(root.read("/data/dst"), big);
    EXPECT_EQ(copy_file("/data/dst", "/data/missing"), -1);
    EXPECT_TRUE(log.has("Can't open file /data/missing. err is No such file or directory"));
    EXPECT_EQ(copy_file("/nodir/dst", "/data/src"), -1);
    EXPECT_TRUE(log.has("Can't open file /nodir/dst. err is No such file or directory"));
}

// A save that finds the disk full leaves the working file as it was and no
// temporary file; the next save writes every change made since.
TEST_F(ConfigTest, FullDiskLeavesTheWorkingFileAsItWas) {
    write_system(make_conf("1", "", pipe_node("Dmesg") + pipe_node("Kmsg")));
    ASSERT_EQ(vorn_config_choose(), 3);
    std::string before = work();
    {
        FileSizeLimit limit(before.size() / 2);
        vorn_config_set_attr(vorn_config_find_element("Dmesg"), "mask", "full");
        EXPECT_EQ(vorn_config_save(), -1);
    }
    EXPECT_EQ(work(), before);
    for (const auto &e : std::filesystem::directory_iterator(root.at("/data")))
        EXPECT_EQ(e.path().filename(), "vorn-conf.xml");
    vorn_config_set_attr(vorn_config_find_element("Kmsg"), "mask", "room");
    std::string after = work();
    EXPECT_NE(after.find("mask=\"full\""), std::string::npos) << after;
    EXPECT_NE(after.find("mask=\"room\""), std::string::npos) << after;
}

TEST_F(ConfigTest, BytesXmlCannotHoldAreSavedAsQuestionMarks) {
    write_system(make_conf("1", "", pipe_node("Dmesg")));
    ASSERT_EQ(vorn_config_choose(), 2);
    // Control bytes, a lone continuation byte, a truncated sequence, an
    // overlong encoding; valid UTF-8 and markup characters pass.
    vorn_config_set_attr(vorn_config_find_element("Dmesg"), "mask",
                         "a\x01\x1f\x80z\xe2\x82\xc0\x80<&\"\xc3\xa9\t");
    reset_daemon_state();
    ASSERT_EQ(vorn_config_choose(), 2);
    xmlChar *v = xmlGetProp(vorn_config_find_element("Dmesg"), BAD_CAST "mask");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(v)),
              "a" + std::string(3, '?') + "z" + std::string(4, '?') + "<&\"\xc3\xa9\t");
    xmlFree(v);
}

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
