// The DumpParser node: its ops, the producer and the consumer.
#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>

#include "core/node_ops.h"
#include "dumpparser/dumpparser.h"
#include "tests/dumpparser/dump_env.h"
#include "tests/support/wait.h"

namespace {

using namespace dumpgen;

// The DumpParser row of the daemon's register table.
const vorn_node_ops kDumpParserRow = {"DumpParser", check_dump_ops, dumpparser_enable,
                                      dumpparser_disable, dumpparser_produce_thread};

class QueueTest : public DumpEnv {
  protected:
    void SetUp() override {
        DumpEnv::SetUp();
        pthread_mutex_init(&node.lock, nullptr);
        snprintf(node.logname, sizeof(node.logname), "DumpParser");
        node.logtype = VORN_LOGTYPE_DUMP;
        node.ops = &kDumpParserRow;
    }
    void TearDown() override {
        pthread_mutex_destroy(&node.lock);
        DumpEnv::TearDown();
    }

    // What the dispatcher does for a type-2 command, under the node's lock.
    void command(bool on, const std::string &path) {
        vorn_ctrl_msg m{};
        m.msg_type = VORN_MSG_SET_NODE;
        m.enable = on;
        snprintf(m.mask, sizeof(m.mask), "%s", path.c_str());
        vorn_node_guard g(&node);
        node.pending_change = 1;
        EXPECT_EQ(on ? vorn_node_enable(&node, &m) : vorn_node_disable(&node, &m), 0);
    }

    bool taken() {
        vorn_node_guard g(&node);
        return node.pending_change == 0;
    }

    vorn_node node{};
};

TEST_F(QueueTest, OpsStoreStateAndPath) {
    const vorn_node_ops &row = kDumpParserRow;
    EXPECT_EQ(check_dump_ops(&node, &row), 0);
    node.logtype = 0;
    EXPECT_EQ(check_dump_ops(&node, &row), -1);

    vorn_ctrl_msg m{};
    m.enable = 3;
    memset(m.mask, 'p', sizeof(m.mask));  // no terminator: the path is cut to 99
    EXPECT_EQ(dumpparser_enable(&node, &m), 0);
    EXPECT_EQ(dumpparser_running, 1);
    EXPECT_EQ(node.enable, 1);
    EXPECT_EQ(std::string(node.mask), std::string(99, 'p'));
    m.enable = 0;
    EXPECT_EQ(dumpparser_disable(&node, &m), 0);
    EXPECT_EQ(dumpparser_running, 0);
    EXPECT_EQ(node.enable, 0);
    EXPECT_EQ(node.mask[0], '\0');

    EXPECT_EQ(dumpparser_enable(nullptr, &m), -1);
    EXPECT_EQ(dumpparser_enable(&node, nullptr), -1);
    EXPECT_EQ(dumpparser_disable(nullptr, &m), -1);
    EXPECT_EQ(dumpparser_produce_thread(nullptr), reinterpret_cast<void *>(-1L));
    EXPECT_TRUE(log.has("DumpParser: Invalid argument"));
}

// Three directories and an empty path, then a disable while the first is
// still being parsed: all three are parsed in arrival order, then both
// threads end.
TEST_F(QueueTest, ParsesInArrivalOrderAndDrainsAfterDisable) {
    struct utsname u;
    int version = uname(&u) == 0 ? dumpparser_kernel_version(u.release) : -1;
    if (version < 304)
        GTEST_SKIP() << "this kernel is older than 3.4";
    const std::vector<std::pair<std::string, std::string>> dirs = {
        {"d1", "Watchdog bark! Now"}, {"d2", "plain"}, {"d3", "Kernel panic - not syncing: x"}};
    for (const auto &[name, text] : dirs) {
        DumpDir d = dump(name);
        simple_dump(d, version, make_ring({{1, text}}, 128, 0));
    }
    // The first broadcast is held until the rest is queued and the node
    // disabled.
    root.write("/data/am.hold", "");

    vorn_node_create_work_thread(&node);
    command(true, dev("d1"));
    ASSERT_TRUE(wait_until([&] { return broadcasts().size() == 1; }, 10000));
    for (const char *path : {"", "/data/dumps/d2", "/data/dumps/d3"}) {
        ASSERT_TRUE(wait_until([&] { return taken(); }, 5000));
        command(true, path);
    }
    ASSERT_TRUE(wait_until([&] { return taken(); }, 5000));
    command(false, "");
    EXPECT_EQ(log.count_containing("to parse!"), 1u) << log.dump();
    unlink(root.at("/data/am.hold").c_str());

    ASSERT_TRUE(wait_until(
        [&] {
            vorn_node_guard g(&node);
            return node.worker_thread == 0 && dumpparser_consumer_tid == 0;
        },
        20000))
        << log.dump();
    EXPECT_EQ(broadcasts(), (std::vector<std::string>{broadcast(0, "AP", dev("d1")),
                                                      broadcast(0, "UNKNOWN", dev("d2")),
                                                      broadcast(0, "AP", dev("d3"))}));
    EXPECT_EQ(log.count_containing("DumpParser: dump file path: "), 3u);
    EXPECT_TRUE(log.has("DumpParser: get dump file /data/dumps/d3 to parse!"));
    EXPECT_TRUE(log.has("DumpParser: produce thread exist ... "));
    EXPECT_TRUE(log.has("DumpParser: consume thread exist..."));
    pthread_mutex_lock(&dump_list_mutex);
    EXPECT_EQ(dump_list_head, nullptr);
    EXPECT_EQ(dump_list_tail, &dump_list_head);
    pthread_mutex_unlock(&dump_list_mutex);
}

}  // namespace
