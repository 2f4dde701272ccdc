// Applying one queued change: write-back, ops, workers and failures, on a
// node table loaded in memory with recording ops.
#include <android/log.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/config.h"
#include "core/node_ops.h"
#include "core/node_table.h"
#include "daemon/dispatcher.h"
#include "daemon/register_table.h"
#include "tests/support/daemon_state.h"
#include "tests/support/file_saves.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

namespace {

std::vector<std::string> g_calls;
int g_op_result = 0;
bool g_op_stores = true;  // whether a failing op stored the new state first
std::atomic<int> g_workers{0};

int record(const char *what, vorn_node *node, const vorn_ctrl_msg *cmd) {
    g_calls.push_back(what + std::string(node->logname));
    if (g_op_stores)
        set_node_state(node, cmd);
    return g_op_result;
}
int rec_enable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    return record("enable ", node, cmd);
}
int rec_disable(vorn_node *node, const vorn_ctrl_msg *cmd) {
    return record("disable ", node, cmd);
}

void *rec_work(void *) {
    g_workers++;
    return nullptr;
}

const vorn_node_ops kRecordingRow = {"Recording", nullptr, rec_enable, rec_disable, rec_work};

class DispatcherTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_daemon_state(false);
        vorn_use_register_table();
        g_calls.clear();
        g_op_result = 0;
        g_op_stores = true;
        g_workers = 0;
        root.mkdir("/data");
        root.write(VORN_SYSTEM_CONF,
                   make_conf("1", "enable=\"0\"",
                             pipe_node("Alpha", "mask=\"a0\"") +
                                 "  <Beta logname=\"Beta\" enable=\"1\" logtype=\"128\" "
                                 "log_provider=\"x\" log_filepath=\"x\" mask=\"b0\"/>\n"));
        int n = vorn_config_choose();
        ASSERT_EQ(n, 3);
        ASSERT_EQ(vornd_load_nodes(n, false), 0);
        for (int i = 1; i < vorn_node_count; i++)
            vorn_nodes[i].ops = &kRecordingRow;
    }
    void TearDown() override { reset_daemon_state(); }

    int apply(const char *name, uint8_t enable, const char *mask) {
        auto *cmd = static_cast<vorn_pending_cmd *>(calloc(1, sizeof(vorn_pending_cmd)));
        cmd->msg.msg_type = VORN_MSG_SET_NODE;
        cmd->msg.enable = enable;
        vorn_msg_put_text(cmd->msg.logname, sizeof cmd->msg.logname, name);
        vorn_msg_put_text(cmd->msg.mask, sizeof cmd->msg.mask, mask);
        return vornd_dispatch_cmd(cmd);
    }
    vorn_node *node(const char *name) { return &vorn_nodes[find_node_index(name)]; }
    std::string attr(const char *tag, const char *name) {
        xmlNodePtr el = vorn_config_find_element(tag);
        xmlChar *v = el ? xmlGetProp(el, BAD_CAST name) : nullptr;
        std::string s = v ? reinterpret_cast<char *>(v) : "<none>";
        xmlFree(v);
        return s;
    }
    void wait_workers(int n) {
        wait_until([&] { return g_workers >= n; }, 1000, 10);
        usleep(20000);  // and no more
    }

    TempRoot root;
    LogCapture log;
};

TEST_F(DispatcherTest, ChangesAreWrittenBackAndTheOpCalled) {
    EXPECT_EQ(apply("Alpha", 1, "m1"), 0);
    EXPECT_EQ(attr("Alpha", "enable"), "1");
    EXPECT_EQ(attr("Alpha", "mask"), "m1");
    vorn_node *a = node("Alpha");
    EXPECT_EQ(a->enable, 1);
    EXPECT_STREQ(a->mask, "m1");
    EXPECT_EQ(a->pending_change, 1);
    wait_workers(1);
    EXPECT_EQ(g_workers, 1);

    // The current state and mask with new-file bits: only the request is stored.
    EXPECT_EQ(apply("Alpha", 3, "m1"), 0);
    EXPECT_EQ(a->new_file_request, 1);

    // A running worker is not started again; a disable starts none.
    a->worker_thread = 42;
    EXPECT_EQ(apply("Alpha", 1, "m2"), 0);
    EXPECT_EQ(a->new_file_request, 0);
    EXPECT_EQ(apply("Beta", 0, "b0"), 0);
    wait_workers(2);
    EXPECT_EQ(g_workers, 1);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"enable Alpha", "enable Alpha", "disable Beta"}));
}

TEST_F(DispatcherTest, AFailedOpUndoesTheStateBitButNotTheFile) {
    struct Case {
        const char *name;
        uint8_t enable;
        bool stores;
        const char *message;
        uint8_t state_after;
    } cases[] = {
        // The op stored the new state: flipping restores the old one.
        {"Alpha", 1, true, "fail to set Alpha enable\n", 0},
        // The op stored nothing: the message names the old state, and the
        // flip leaves the wanted one.
        {"Beta", 0, false, "fail to set Beta enable\n", 0},
    };
    g_op_result = -1;
    for (const auto &c : cases) {
        log.clear();
        g_op_stores = c.stores;
        EXPECT_EQ(apply(c.name, c.enable, "changed"), 0);
        EXPECT_EQ(log.find(c.message).prio, ANDROID_LOG_ERROR) << c.name << "\n" << log.dump();
        EXPECT_EQ(node(c.name)->enable, c.state_after) << c.name;
        EXPECT_EQ(node(c.name)->pending_change, 0) << c.name;
        EXPECT_EQ(attr(c.name, "enable"), std::to_string(c.enable)) << c.name;
        EXPECT_EQ(attr(c.name, "mask"), "changed") << c.name;
    }
}

// An exec node pastes its mask into a shell command line: a mask with shell
// code is refused before any op runs or anything is saved.
TEST_F(DispatcherTest, ExecMasksWithShellCodeAreRefusedAndNotSaved) {
    vorn_node *b = node("Beta");
    b->logtype = VORN_KIND_EXEC;
    const int pending = b->pending_change;
    FileSaves saves(root.at("/data"), "vorn-conf.xml");
    for (const char *mask : {"x;touch /data/p", "$(touch /data/p)", "`touch /data/p`", "a|b", "a&b",
                             "a\nb", "a>b", "'q'", "\"q\"", "a\\b", "*", "~x"}) {
        log.clear();
        EXPECT_EQ(apply("Beta", 1, mask), 0);
        EXPECT_TRUE(log.has_containing(std::string("Refused mask (") + mask + ") of Beta: "))
            << log.dump();
    }
    EXPECT_TRUE(g_calls.empty());
    EXPECT_EQ(saves.count(), 0);
    EXPECT_EQ(attr("Beta", "mask"), "b0");
    EXPECT_STREQ(b->mask, "b0");
    EXPECT_EQ(b->pending_change, pending);

    // Options and paths pass; other kinds take any mask.
    EXPECT_EQ(apply("Beta", 1, "-s 0 -w /data/x.pcap ip=1,2 a+b@c%d:e"), 0);
    EXPECT_EQ(attr("Beta", "mask"), "-s 0 -w /data/x.pcap ip=1,2 a+b@c%d:e");
    EXPECT_EQ(apply("Alpha", 1, "a;b"), 0);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"enable Beta", "enable Alpha"}));
}

// Run under LeakSanitizer, this also shows that the command is freed.
TEST_F(DispatcherTest, UnknownNamesAreReportedAndFreed) {
    EXPECT_EQ(apply("Nope", 1, ""), -1);
    EXPECT_EQ(log.find("Invalid logname: Nope").prio, ANDROID_LOG_ERROR);
    // A name that fills its field without a terminator is read as 16 characters.
    auto *cmd = static_cast<vorn_pending_cmd *>(malloc(sizeof(vorn_pending_cmd)));
    memset(&cmd->msg, 'A', sizeof cmd->msg);
    cmd->msg.enable = 1;
    EXPECT_EQ(vornd_dispatch_cmd(cmd), -1);
    EXPECT_TRUE(log.has("Invalid logname: AAAAAAAAAAAAAAAA"));
    EXPECT_TRUE(g_calls.empty());
}

}  // namespace
