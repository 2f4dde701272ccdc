// The daemon killed with SIGKILL in the middle of write-backs, again and
// again: the working configuration always parses, and every start succeeds.
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "tests/support/conf_text.h"
#include "tests/support/daemon_fixture.h"

namespace {

constexpr int kNodes = 1000;  // a working file of some 150 KB: saves take a while

// True when the file is well-formed XML (strictly: no recovery) with the
// root and every element of the configuration.
bool parses_whole(const std::string &path) {
    xmlDocPtr doc = xmlReadFile(path.c_str(), nullptr, XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    xmlNodePtr root = doc ? xmlDocGetRootElement(doc) : nullptr;
    bool ok = root != nullptr && xmlStrcmp(root->name, BAD_CAST "vornconf") == 0 &&
              xmlChildElementCount(root) == kNodes + 1;
    xmlFreeDoc(doc);
    return ok;
}

// Temporary files of saves beside the working copy.
int temp_files(const DaemonFixture &d) {
    int n = 0;
    for (const auto &e : std::filesystem::directory_iterator(d.at("/data")))
        n += e.path().filename().string().find(".tmp.") != std::string::npos;
    return n;
}

TEST(FaultTest, KillsDuringWriteBackLeaveAWorkingFileThatParses) {
    DaemonFixture d;
    std::string nodes;
    for (int i = 0; i < kNodes; i++)
        nodes += pipe_node("N" + std::to_string(i));
    d.write_config(make_conf("1", "enable=\"1\" log_path=\"/sdcard/logs/\"", nodes));
    std::mt19937 gen(16);
    int kills = 0, intact = 0, in_save = 0, crashes = 0;
    std::atomic<int> requests{0};
    for (int round = 0; round < 100; round++) {
        d.write("/host/vornd.stderr", "");  // each start reads only its own log
        int before = requests;
        ASSERT_TRUE(d.start()) << "start " << round << "\n" << d.log();
        // Log-path changes back to back from another thread: each is saved on
        // the socket thread before its reply, so a save is nearly always
        // under way when the kill comes.
        std::thread sender([&] {
            for (int i = 0;; i++) {
                std::string path =
                    "/sdcard/logs/r" + std::to_string(round) + "-" + std::to_string(i) + "/";
                if (!d.exchange(log_path_msg(path.c_str()), 2000).connected)
                    break;
                requests++;
            }
        });
        while (requests == before && d.alive())
            usleep(1000);
        usleep(std::uniform_int_distribution<int>(0, 20000)(gen));
        // A daemon already gone, or one that reported a sanitizer error, crashed.
        bool crashed = !d.alive();
        kill(d.pid(), SIGKILL);
        sender.join();
        for (int i = 0; i < 200 && d.alive(); i++)
            usleep(5000);
        ASSERT_FALSE(d.alive());
        kills++;
        crashed = crashed || d.log().find("Sanitizer") != std::string::npos;
        crashes += crashed;
        EXPECT_FALSE(crashed) << "round " << round << "\n" << d.log();
        // A temporary file left behind: the kill came between its create and
        // its rename.
        in_save += temp_files(d) > 0;
        bool ok = parses_whole(d.at("/data/vorn-conf.xml"));
        intact += ok;
        EXPECT_TRUE(ok) << "round " << round << ": " << d.working_xml().substr(0, 400);
    }
    ASSERT_TRUE(d.start());  // the last kill is survived too
    // Temporary files of interrupted saves are gone after a start.
    EXPECT_EQ(temp_files(d), 0);
    EXPECT_TRUE(d.alive());
    // A third to a half of the kills hit a save (its temporary file was
    // left); far fewer and the loop would prove little.
    EXPECT_GE(in_save, kills / 10);
    printf(
        "fault: %d requests, %d kills survived (%d during a save), %d of %d working files "
        "intact, %d crashes\n",
        requests.load(), kills, in_save, intact, kills, crashes);
}

}  // namespace
