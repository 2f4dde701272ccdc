// The daemon killed with SIGKILL in the middle of write-backs, again and
// again: the working configuration always parses, and every start succeeds.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <random>
#include <string>

#include "tests/support/conf_text.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/process.h"

namespace {

vorn_ctrl_msg log_path_msg(const std::string &path) {
    vorn_ctrl_msg m = ctrl_msg(VORN_MSG_SET_LOG_PATH);
    vorn_msg_put_text(reinterpret_cast<char *>(&m) + VORN_MSG_GBL_LOG_PATH_OFF,
                      VORN_MSG_GBL_LOG_PATH_LEN, path.c_str());
    return m;
}

TEST(FaultTest, KillsDuringWriteBackLeaveAWorkingFileThatParses) {
    DaemonFixture d;
    d.write_config(make_conf("1", "enable=\"1\" log_path=\"/sdcard/logs/\"",
                             pipe_node("Alpha") + pipe_node("Beta")));
    const char *check =
        "import sys, xml.etree.ElementTree as E\n"
        "r = E.parse(sys.argv[1]).getroot()\n"
        "sys.exit(0 if r.tag == 'vornconf' and len(r) == 3 else 1)\n";
    std::mt19937 gen(16);
    int kills = 0, intact = 0, requests = 0;
    for (int round = 0; round < 100; round++) {
        ASSERT_TRUE(d.start()) << "start " << round << "\n" << d.log();
        // Log-path changes are saved on the socket thread at once; the kill
        // lands somewhere among them.
        for (int i = 0; i < 4; i++, requests++)
            d.exchange(log_path_msg("/sdcard/logs/r" + std::to_string(round * 4 + i) + "/"), 200);
        usleep(std::uniform_int_distribution<int>(0, 3000)(gen));
        kill(d.pid(), SIGKILL);
        for (int i = 0; i < 200 && d.alive(); i++)
            usleep(5000);
        ASSERT_FALSE(d.alive());
        kills++;
        ProcessResult p = run_process(
            {"/usr/bin/env", "python3", "-c", check, d.at("/data/vorn-conf.xml")}, 10000);
        intact += p.exit_status == 0;
        EXPECT_EQ(p.exit_status, 0) << "round " << round << ": " << d.working_xml();
    }
    ASSERT_TRUE(d.start());
    // Temporary files of interrupted saves are gone after a start.
    std::string listing = run_process({"ls", "-a", d.at("/data")}, 5000).out;
    EXPECT_EQ(listing.find(".tmp."), std::string::npos) << listing;
    EXPECT_TRUE(d.alive());
    RecordProperty("requests", requests);
    RecordProperty("kills", kills);
    RecordProperty("intact", intact);
    printf("fault: %d requests, %d kills survived, %d of %d working files intact\n", requests,
           kills, intact, kills);
}

}  // namespace
