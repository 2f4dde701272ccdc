// The control socket as its clients see it: reply bytes, requests closed
// without a reply, and bad input that must not stop the daemon; and vornctl
// against the same daemon, with its manual pages.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>

#include "tests/support/conf_text.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"

namespace {

using namespace std::string_literals;

// Descriptors a process holds open.
size_t open_fds(pid_t pid) {
    std::error_code ec;
    std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", ec);
    return ec ? 0 : static_cast<size_t>(std::distance(it, std::filesystem::directory_iterator()));
}

// Bytes 128-255 of a request: a pattern the reply must echo.
void fill_reserved(vorn_ctrl_msg *m) {
    for (int i = 0; i < 128; i++)
        m->reserved[i] = static_cast<uint8_t>(0xA0 ^ i);
}

// One daemon for each test, with two capture nodes; Gone lacks a provider,
// so the daemon drops it at load.
class ProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        d.write_config(make_conf(
            "1", "enable=\"1\" loglevel=\"2\" time=\"30\" size=\"4096\" log_path=\"/sdcard/logs/\"",
            pipe_node("Alpha", "loglevel=\"3\" size=\"2048\" mask=\"m1\"") + pipe_node("Beta") +
                "  <Gone logname=\"Gone\" enable=\"0\" logtype=\"128\"/>\n"));
        setenv("ANDROID_SOCKET_vornd", "-1", 1);  // not a socket: the daemon makes its own
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

// vornctl against the same daemon: output, exit statuses and error lines.
class VornctlTest : public ProtocolTest {};

TEST_F(ProtocolTest, RepliesAndRequestsWithoutReply) {
    struct stat st;
    ASSERT_EQ(stat(d.at("/dev/socket/vornd").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    EXPECT_FALSE(d.wait_for_log("logid 1, enable 0 , loglevel 3 ,logtype 128 , log_provider echo "
                                "hi , log_filepath Alpha/Alpha ,logname Alpha ,mask m1\n",
                                0)
                     .empty());

    // Type 1: the node's fields, the request's bytes 128-255 echoed.
    vorn_ctrl_msg q = ctrl_msg(VORN_MSG_QUERY_NODE, "Alpha");
    q.logid = 77;
    fill_reserved(&q);
    CtrlExchange r = d.exchange(q);
    EXPECT_TRUE(r.closed);
    // A logtype value overlays time (see the configuration reader): 0.
    vorn_ctrl_msg want = ctrl_msg(0x81, "Alpha", 0, "m1");
    want.logid = 1;
    want.loglevel = 3;
    want.size = 2048;
    memcpy(want.reserved, q.reserved, 128);
    EXPECT_EQ(r.reply, msg_bytes(want));
    for (const char *line : {"msg_type is 129", "logid is 1", "enable is 0", "loglevel is 3",
                             "time is 0", "size is 2048", "logname is Alpha", "mask is m1"}) {
        EXPECT_FALSE(d.wait_for_log(std::string(" D vornd   : ") + line, 2000).empty()) << line;
    }

    // An unknown name: no reply, the connection is closed.
    r = d.exchange(ctrl_msg(VORN_MSG_QUERY_NODE, "Nope"));
    EXPECT_TRUE(r.closed);
    EXPECT_EQ(r.reply, "");
    EXPECT_FALSE(d.wait_for_log(" E vornd   : Can't find valid index for logname (Nope)").empty());

    // Type 3: gbl_config in bytes 0-127, bytes 128-255 as received.
    vorn_ctrl_msg g = ctrl_msg(VORN_MSG_GET_GLOBAL);
    fill_reserved(&g);
    r = d.exchange(g);
    std::string global(256, '\0');
    global[0] = '\x80';
    global[1] = 1;
    global[2] = 2;
    vorn_msg_put_i32(global.data(), 3, 30);
    vorn_msg_put_i32(global.data(), 7, 4096);
    global.replace(11, 13, "/sdcard/logs/");
    global.replace(128, 128, reinterpret_cast<const char *>(g.reserved), 128);
    EXPECT_EQ(r.reply, global);

    // A 1-byte type 3 is served; the rest of its buffer was zero.
    r = d.exchange(std::string(1, '\x03'));
    ASSERT_EQ(r.reply.size(), 256u);
    EXPECT_EQ(r.reply.substr(128), std::string(128, '\0'));
    EXPECT_FALSE(d.wait_for_log("Message recieved size:1 type:3").empty());

    // Type 2 is acknowledged even for an unknown node; the dispatcher
    // reports the name later.
    vorn_ctrl_msg c = ctrl_msg(VORN_MSG_SET_NODE, "Nope", 1, "x");
    fill_reserved(&c);
    r = d.exchange(c);
    EXPECT_EQ(r.reply, std::string(1, '\x80') + std::string(255, '\0'));
    EXPECT_FALSE(d.wait_for_log(" E vornd   : Invalid logname: Nope").empty());

    // No reply: an unchanged log path, nothing types, agent lines, archives,
    // ignored types. The unchanged path does not rewrite the working file.
    FileSaves saves = d.working_saves();
    std::string before = d.working_xml();
    vorn_ctrl_msg same_path = log_path_msg("/sdcard/logs/");
    // An agent line filling bytes 1-255 reaches the agent whole.
    vorn_ctrl_msg agent = ctrl_msg(VORN_MSG_AGENT);
    memset(reinterpret_cast<char *>(&agent) + 1, 'a', 255);
    for (const vorn_ctrl_msg &m :
         {same_path, ctrl_msg(5, "Alpha"), ctrl_msg(6, "Alpha"), agent,
          ctrl_msg(VORN_MSG_ARCHIVE, "Crash", 0, "/no/such/dir"), ctrl_msg(9, "Alpha"),
          ctrl_msg(0, "Alpha"), ctrl_msg(0x81, "Alpha"), ctrl_msg(255, "Alpha")}) {
        r = d.exchange(m);
        EXPECT_TRUE(r.connected && r.closed) << int{m.msg_type};
        EXPECT_EQ(r.reply, "") << int{m.msg_type};
    }
    EXPECT_FALSE(
        d.wait_for_log("Execute command (" + std::string(255, 'a') + ") failed: 104").empty());
    EXPECT_EQ(saves.count(), 0);
    EXPECT_EQ(d.working_xml(), before);
    EXPECT_TRUE(d.alive());
}

TEST_F(ProtocolTest, BadInputNeverStopsTheDaemon) {
    std::string query = msg_bytes(ctrl_msg(VORN_MSG_QUERY_NODE, "Alpha"));
    // Sizes around the message: short ones are completed with zeros, long
    // ones are read as their first 256 bytes.
    struct {
        std::string bytes;
        size_t reply;
        const char *logged;
    } sizes[] = {
        {"", 0, "Message recieved size:0 type:0"},
        {std::string(1, '\x05'), 0, "Message recieved size:1 type:5"},
        {query.substr(0, 255), 256, "Message recieved size:255 type:1"},
        {query, 256, "Message recieved size:256 type:1"},
        {query + std::string(4096 - 256, '\x01'), 256, "Message recieved size:256 type:1"},
    };
    for (const auto &s : sizes) {
        size_t mark = d.log_mark();
        CtrlExchange r = d.exchange(s.bytes);
        EXPECT_TRUE(r.closed) << s.bytes.size();
        EXPECT_EQ(r.reply.size(), s.reply) << s.bytes.size();
        if (s.reply) {
            EXPECT_EQ(static_cast<uint8_t>(r.reply[0]), 0x81);
        }
        EXPECT_FALSE(d.wait_for_log(s.logged, 2000, mark).empty()) << s.logged;
    }

    // Ten clients that connect and stay silent: a query is still answered
    // (at once: see the hostile test), and each silent one is closed after
    // 5 s. A client gone before its reply costs a logged send failure.
    size_t held = open_fds(d.pid());
    int silent[10];
    for (int &fd : silent) {
        fd = d.connect_socket();
        ASSERT_GE(fd, 0);
    }
    // The daemon has accepted them all before the next client comes.
    ASSERT_TRUE(wait_until([&] { return open_fds(d.pid()) >= held + 10; }, 3000));
    int gone = d.connect_socket();
    ASSERT_GE(gone, 0);
    // Not reading any more: the reply fails however soon it is sent.
    ASSERT_EQ(shutdown(gone, SHUT_RD), 0);
    ASSERT_EQ(write(gone, query.data(), query.size()), 256);
    close(gone);
    size_t mark = d.log_mark();
    EXPECT_EQ(d.exchange(ctrl_msg(VORN_MSG_GET_GLOBAL), 15000).reply.size(), 256u);
    EXPECT_FALSE(d.wait_for_log(" E vornd   : Failed to recv message from socket. return: -1 err: "
                                "Resource temporarily unavailable",
                                8000, mark)
                     .empty());
    for (int fd : silent)
        close(fd);
    EXPECT_FALSE(d.wait_for_log(" E vornd   : Failed to send message from socket. return: -1 err: "
                                "Broken pipe")
                     .empty());

    EXPECT_TRUE(d.alive());
    // The working file is the configuration as loaded.
    EXPECT_NE(d.working_xml().find("<Alpha logname=\"Alpha\""), std::string::npos);
}

TEST_F(VornctlTest, NodeAndGlobalCommands) {
    EXPECT_EQ(ctl({"query", "Alpha"}, 0).out,
              "slot=1 name=Alpha enabled=0 level=3 time=0 size=2048 mask=m1\n");
    EXPECT_EQ(ctl({"--json", "query", "Alpha"}, 0).out,
              "{\"slot\":1,\"name\":\"Alpha\",\"enabled\":0,\"level\":3,\"time\":0,\"size\":2048,"
              "\"mask\":\"m1\"}\n");
    EXPECT_NE(ctl({"query", "Nope"}, 1).err.find("unknown node Nope"), std::string::npos);
    EXPECT_EQ(ctl({"global"}, 0).out,
              "enabled=1 level=2 time=30 size=4096 log_path=/sdcard/logs/\n");

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
