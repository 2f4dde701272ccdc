// The pipeline's threads on FIFOs standing in for the trace device: the
// start checks, capture into the node's files, a writer that cannot create
// or write its file, a reader error, and the message handler's retries.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "core/gbl_config.h"
#include "platform/io.h"
#include "tests/qdss/qdss_env.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

namespace {

class QdssPipeline : public ::testing::Test {
  protected:
    // Starts a pipeline on node and switches it on; false when it did not start.
    bool start(vorn_node *node) {
        state = qdss_new_state();
        if (qdss_start_pipeline(state, node) != 0)
            return false;
        qdss_switch(node, true);
        return true;
    }
    bool wait_active() {
        return wait_until([&] { return state->qdss_active.load() == 1; }, 10000, 20);
    }
    bool wait_files(const std::string &dir, const std::string &want, int timeout_ms = 10000) {
        return wait_until([&] { return qdss_files(dir) == want; }, timeout_ms, 50);
    }

    TempRoot &root = qdss_root();
    LogCapture log;
    qdss_state *state = nullptr;
};

TEST_F(QdssPipeline, StartsOnlyWithItsDevice) {
    qdss_log_dir("start", "QDSS");
    qdss_state *s = qdss_new_state();
    EXPECT_EQ(qdss_start_pipeline(s, qdss_node("/dev/no-trace", "QDSS/qdss")), -1);
    EXPECT_TRUE(log.has("create seperate read write thread for QDSS\n"));
    EXPECT_TRUE(log.has("QDSS is not enabled.\n"));
    EXPECT_EQ(qdss_start_pipeline(s, qdss_node(nullptr, "QDSS/qdss")), -1);
    EXPECT_TRUE(log.has("Won't start thread if no log provider defined"));
    EXPECT_EQ(s->node, nullptr);  // no thread runs
    EXPECT_FALSE(log.has("QDSS(R) start ...\n"));
}

// Blocks queue while the writer has no file, and while the disk is full;
// they are all written, in order, once it can write again, and the queue
// never holds more than max pages.
TEST_F(QdssPipeline, QueuesThroughAMissingFileAndAFullDiskAndLosesNothing) {
    std::string dir = qdss_log_dir("stall", "QDSS");
    // A file where the node's folder should be: no log file can be made.
    root.write(dir, "in the way");
    unique_fd fifo(qdss_fifo("/dev/trace-stall"));
    ASSERT_TRUE(start(qdss_node("/dev/trace-stall", "QDSS/qdss")));
    ASSERT_TRUE(wait_active()) << log.dump();
    EXPECT_TRUE(log.has("QDSS(W) : Failed to create file"));

    std::string first = qdss_pattern(256 * 1024, 1);
    ASSERT_EQ(write_all(fifo.get(), first.data(), first.size()),
              static_cast<ssize_t>(first.size()));
    ASSERT_TRUE(wait_until([&] { return state->filled_count.load() >= 32; }, 10000));
    std::filesystem::remove(root.at(dir));
    ASSERT_TRUE(wait_files(dir, first)) << log.dump();

    // A full disk: 12 MiB more than the pool holds arrive meanwhile.
    std::string more = qdss_pattern(12 << 20, 2);
    std::thread feeder;
    {
        FileSizeLimit full(first.size());
        feeder = std::thread([&] { write_all(fifo.get(), more.data(), more.size()); });
        bool filled =
            wait_until([&] { return state->filled_count.load() >= state->max_pages; }, 30000, 50);
        usleep(300 * 1000);  // the reader finds no room and stops reading
        EXPECT_TRUE(filled) << state->filled_count.load();
        EXPECT_EQ(state->peak_filled.load(), state->max_pages);
        EXPECT_LE(state->blocks_allocated.load(), state->max_pages + QDSS_START_BLOCKS + 2);
        EXPECT_TRUE(log.has("QDSS(W) : Failed to write out to log file\n"));
    }
    bool all = wait_files(dir, first + more, 30000);
    feeder.join();  // ends once the reader reads on
    ASSERT_TRUE(all) << qdss_files(dir).size();
    // The pool shrank back as the queue drained.
    EXPECT_TRUE(wait_until([&] { return state->blocks_allocated.load() <= 20; }, 5000));
    qdss_switch(state->node, false);
}

// A read error other than EINTR and EIO switches the node off; the reader
// then waits for the next command instead of reading on in a loop.
TEST_F(QdssPipeline, ReadErrorSwitchesTheNodeOffUntilTheNextCommand) {
    std::string dir = qdss_log_dir("readerr", "QDSS");
    root.mkdir("/dev/trace-dir");  // opens, but every read fails (EISDIR)
    vorn_node *node = qdss_node("/dev/trace-dir", "QDSS/qdss");
    ASSERT_TRUE(start(node));
    const char *failure =
        "QDSS(R) : Is a directory: Failed to read from dev node: /dev/trace-dir\n";
    ASSERT_TRUE(wait_until([&] { return log.has(failure); }, 10000)) << log.dump();
    EXPECT_TRUE(wait_until(
        [&] {
            vorn_node_guard g(node);
            return node->enable == 0;
        },
        1000));
    sleep(1);
    EXPECT_EQ(log.count(failure), 1u);
    EXPECT_EQ(state->qdss_active.load(), 1);

    // Enabled again on a working device: capture starts over.
    unique_fd fifo(qdss_fifo("/dev/trace-back"));
    {
        vorn_node_guard g(node);
        free(node->log_provider);
        node->log_provider = strdup("/dev/trace-back");
    }
    qdss_switch(node, true);
    std::string data = qdss_pattern(64 * 1024, 3);
    ASSERT_EQ(write_all(fifo.get(), data.data(), data.size()), static_cast<ssize_t>(data.size()));
    EXPECT_TRUE(wait_files(dir, data, 15000)) << log.dump();
    EXPECT_EQ(log.count(failure), 1u);
    qdss_switch(node, false);
}

// A reset that fails is tried again at once, without the handler's pause,
// for as long as the node stays enabled.
TEST_F(QdssPipeline, FailingResetIsRetriedAtOnceWhileEnabled) {
    const char *stm = "/sys/bus/coresight/devices/coresight-stm/enable";
    std::string saved = root.read(stm);
    unlink(root.at(stm).c_str());
    qdss_state *s = qdss_new_state();
    s->node = qdss_node("/dev/null", "QDSS/qdss");
    qdss_switch(s->node, true);
    std::thread([s] { qdss_msg_handler(s); }).detach();

    const char *fail = "qdss_msg_handler: Reset qdss block fail\n";
    EXPECT_TRUE(wait_until([&] { return log.count(fail) >= 5; }, 2000)) << log.count(fail);
    qdss_switch(s->node, false);
    EXPECT_TRUE(wait_until([&] { return log.has("QDSS(R) : kymbal disable qdss"); }, 2000));
    size_t after = log.count(fail);
    usleep(500 * 1000);
    EXPECT_EQ(log.count(fail), after);  // switched off: no more attempts
    EXPECT_EQ(s->qdss_active.load(), 0);
    root.write(stm, saved);
}

}  // namespace
