// Binding of nodes to the register table, dropped nodes, lookups and threads;
// and applying one queued change (write-back, ops, workers and failures) on a
// node table loaded in memory with recording ops.
#include <android/log.h>
#include <gtest/gtest.h>
#include <pthread.h>
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

class RegistryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset_daemon_state(false);
        vorn_use_register_table();
        root.mkdir("/data");
    }
    void TearDown() override { reset_daemon_state(); }

    int load(const std::string &nodes) {
        root.write(VORN_SYSTEM_CONF, make_conf("1", "enable=\"0\"", nodes));
        int n = vorn_config_choose();
        EXPECT_GT(n, 0);
        EXPECT_EQ(vornd_load_nodes(n, false), 0);
        return n;
    }

    const vorn_node_ops *row(const char *name) {
        for (const auto &r : vorn_register_table) {
            if (strcmp(r.logname, name) == 0)
                return &r;
        }
        return nullptr;
    }

    TempRoot root;
    LogCapture log;
};

TEST_F(RegistryTest, BindsByNameIgnoringCaseAndLooksNamesUpExactly) {
    load(pipe_node("adbmain") + pipe_node("Mystery") + pipe_node("Default") + pipe_node("DMESG") +
         "  <Dropped logname=\"Dropped\"/>\n");
    ASSERT_EQ(vorn_node_count, 5);
    EXPECT_EQ(vorn_nodes[1].ops, row("AdbMain"));
    EXPECT_EQ(vorn_nodes[2].ops, row("Default"));
    EXPECT_EQ(vorn_nodes[3].ops, row("Default"));
    EXPECT_EQ(vorn_nodes[4].ops, row("Dmesg"));
    EXPECT_TRUE(log.has("Mystery doesn't exist in register table, use the default ops\n"));
    EXPECT_TRUE(log.has("Default doesn't exist in register table, use the default ops\n"));
    EXPECT_FALSE(log.has_containing("adbmain doesn't exist"));
    // Lookups are exact.
    EXPECT_EQ(find_node_index("adbmain"), 1);
    EXPECT_EQ(find_node_index("AdbMain"), VORN_NO_NODE);
    EXPECT_EQ(find_node_index("DMESG"), 4);
    EXPECT_TRUE(log.has("find DMESG at index 4"));
    // The probe one past the last node reads the zeroed extra record, where
    // the dropped last node does not linger.
    EXPECT_EQ(find_node_index("Dropped"), VORN_NO_NODE);
    EXPECT_EQ(find_node_index(""), 5);
    EXPECT_EQ(find_node_index(nullptr), VORN_NO_NODE);
}

TEST_F(RegistryTest, InitOpsDecideWhichNodesAreKeptAndDroppedSlotsAreReused) {
    load(
        // ssr without the dump bit: dropped.
        "  <ssr logname=\"ssr\" logtype=\"0\"/>\n"
        // ssr with it: kept.
        "  <ssr logname=\"ssr\" logtype=\"32\"/>\n"
        // A switch without provider: kept.
        "  <DynamicDebug logname=\"DynamicDebug\"/>\n"
        // A switch with a provider but no file path: dropped.
        "  <Bluetooth logname=\"Bluetooth\" log_provider=\"x\" mask_link=\"/etc/link\"/>\n"
        // Its slot is reused without clearing: the texts QXDM lacks are the
        // dropped node's, so it has both provider and file path, and is kept.
        "  <QXDM logname=\"QXDM\" log_filepath=\"q/q\"/>\n"
        // A capture node needs both provider and file path.
        "  <RPM logname=\"RPM\" log_filepath=\"r/r\"/>\n");
    EXPECT_EQ(vorn_node_count, 4);  // global + 3 kept nodes
    EXPECT_STREQ(vorn_nodes[1].logname, "ssr");
    EXPECT_EQ(vorn_nodes[1].logtype, 32);
    EXPECT_STREQ(vorn_nodes[2].logname, "DynamicDebug");
    EXPECT_STREQ(vorn_nodes[3].logname, "QXDM");
    EXPECT_STREQ(vorn_nodes[3].log_provider, "x");
    EXPECT_STREQ(vorn_nodes[3].mask_link, "/etc/link");
    EXPECT_EQ(vorn_nodes[3].logid, 3);
    EXPECT_EQ(find_node_index("Bluetooth"), VORN_NO_NODE);
    EXPECT_EQ(find_node_index("RPM"), VORN_NO_NODE);
}

TEST_F(RegistryTest, NullArgumentsAndAMissingRowName) {
    EXPECT_EQ(vorn_node_ops_init(nullptr), -1);
    EXPECT_TRUE(log.has("vorn_node_ops_init, Invalied arguments\n"));
    vorn_node node{};
    strcpy(node.logname, "x");
    const vorn_node_ops broken[] = {{"a", nullptr, nullptr, nullptr, nullptr},
                                    {nullptr, nullptr, nullptr, nullptr, nullptr}};
    EXPECT_EQ(vorn_node_ops_init_with(&node, broken, 2), -1);
    EXPECT_TRUE(log.has("Please fill logname in register table!\n"));
    const vorn_node_ops no_default[] = {{"a", nullptr, nullptr, nullptr, nullptr}};
    EXPECT_EQ(vorn_node_ops_init_with(&node, no_default, 1), -1);
    EXPECT_EQ(vorn_node_enable(&node, nullptr), -1);  // no ops bound
}

TEST_F(RegistryTest, SetNodeStateStoresBitZeroAndTheMask) {
    vorn_node node{};
    memset(node.mask, 'x', sizeof node.mask - 1);
    vorn_ctrl_msg cmd{};
    cmd.enable = 3;
    memset(cmd.mask, 'm', sizeof cmd.mask);  // not terminated within 100 bytes
    EXPECT_EQ(set_node_state(&node, &cmd), 0);
    EXPECT_EQ(node.enable, 1);
    EXPECT_EQ(std::string(node.mask), std::string(99, 'm'));
    cmd.enable = 2;
    strcpy(cmd.mask, "ab");
    EXPECT_EQ(set_node_state(&node, &cmd), 0);
    EXPECT_EQ(node.enable, 0);
    EXPECT_STREQ(node.mask, "ab");
    EXPECT_EQ(node.mask[3], '\0');
}

std::atomic<int> g_named{0};
char g_name[32];

// The creator names the thread after pthread_create returns: stay alive until
// the name has arrived (or a few seconds passed), then record it.
void *record_name(void *) {
    for (int i = 0; i < 500; i++) {
        pthread_getname_np(pthread_self(), g_name, sizeof g_name);
        if (strncmp(g_name, "vorn", 4) == 0)
            break;
        usleep(10000);
    }
    g_named++;
    return nullptr;
}
int op_ok(vorn_node *, const vorn_ctrl_msg *) {
    return 7;
}

bool wait_calls(int n) {
    return wait_until([&] { return g_named >= n; }, 5000, 10);
}

TEST_F(RegistryTest, WorkThreadsAreNamedAfterTheNode) {
    const vorn_node_ops fake = {"ABCDEFGHIJKLMNOPQRST", nullptr, op_ok, op_ok, record_name};
    vorn_node node{};
    memcpy(node.logname, fake.logname, 15);  // stored cut to 15
    node.ops = &fake;
    g_named = 0;
    vorn_node_create_work_thread(&node);
    ASSERT_TRUE(wait_calls(1));
    EXPECT_STREQ(g_name, "vornd_ABCDEFGHI");
    EXPECT_TRUE(log.has("vorn_node_create_work_thread: Create thread for ABCDEFGHIJKLMNO\n"));
    EXPECT_EQ(vorn_node_enable(&node, nullptr), 7);
    EXPECT_TRUE(log.has("vorn_node_enable: enable ABCDEFGHIJKLMNO\n"));
    EXPECT_EQ(vorn_node_disable(&node, nullptr), 7);

    EXPECT_EQ(start_detached_thread(record_name, nullptr, "vorn_zip"), 0);
    ASSERT_TRUE(wait_calls(2));
    EXPECT_STREQ(g_name, "vorn_zip");

    // Threads that are gone before their creator returns: each names itself,
    // so none is named after it exited (which crashed the daemon).
    static std::atomic<int> ended{0};
    auto quick = [](void *) -> void * {
        ended++;
        return nullptr;
    };
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(start_detached_thread(quick, nullptr, "vorn_zip"), 0);
    for (int i = 0; i < 500 && ended < 1000; i++)
        usleep(10000);
    EXPECT_EQ(ended, 1000);

    // No handler: nothing starts.
    const vorn_node_ops nowork = {"x", nullptr, op_ok, op_ok, nullptr};
    node.ops = &nowork;
    vorn_node_create_work_thread(&node);
    usleep(50000);
    EXPECT_EQ(g_named, 2);
}

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
