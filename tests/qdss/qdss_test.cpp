// QDSS: the block lists (two threads appending while a third takes, as the
// reader and the writer share the free list); programming the trace blocks
// (the mask file replay and the reset) on the simulated phone's sysfs tree;
// and the pipeline's threads on FIFOs standing in for the trace device: the
// start checks, capture into the node's files, a writer that cannot create or
// write its file, a reader error, and the message handler's retries.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "core/gbl_config.h"
#include "platform/io.h"
#include "qdss/qdss.h"
#include "qdss/qdss_blocks.h"
#include "tests/qdss/qdss_env.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

namespace {

TEST(QdssBlockList, TwoAppendersAndATakerLoseNothingAndKeepEachOrder) {
    constexpr uint32_t kPerAppender = 200000;
    qdss_block_list list;
    auto appender = [&list](uint32_t id) {
        for (uint32_t i = 0; i < kPerAppender; i++) {
            qdss_block *b = qdss_block_alloc(0);
            b->length = id << 24 | i;
            list.append(b);
        }
    };
    std::thread a(appender, 1), b(appender, 2);
    uint32_t next[3] = {0, 0, 0};
    uint32_t taken = 0, out_of_order = 0;
    while (taken < 2 * kPerAppender) {
        qdss_block *block = list.take();
        if (block == nullptr)
            continue;
        uint32_t id = block->length >> 24, seq = block->length & 0xFFFFFF;
        if (id < 1 || id > 2 || seq != next[id])
            out_of_order++;
        else
            next[id]++;
        taken++;
        qdss_block_free(block);
    }
    a.join();
    b.join();
    EXPECT_EQ(out_of_order, 0u);
    EXPECT_EQ(next[1], kPerAppender);
    EXPECT_EQ(next[2], kPerAppender);
    EXPECT_EQ(list.take(), nullptr);

    // Empty again, the list takes appends as before (the stub is reused).
    qdss_block *one = qdss_block_alloc(16);
    list.append(one);
    EXPECT_EQ(list.take(), one);
    EXPECT_EQ(list.take(), nullptr);
    qdss_block_free(one);
}

const char *const kStm = "/sys/bus/coresight/devices/coresight-stm/enable";
const char *const kEtm1 = "/sys/bus/coresight/devices/coresight-etm1/enable";
const char *const kHwe = "/sys/bus/coresight/devices/coresight-hwevent/enable";

class QdssProgram : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *f : {kStm, kEtm1, kHwe})
            root.write(f, "0\n");
    }
    void TearDown() override { SetUp(); }
    // The first character of a sysfs file.
    char state(const char *path) const { return root.read(path).c_str()[0]; }

    TempRoot &root = qdss_root();
    LogCapture log;
};

TEST_F(QdssProgram, ConfigureRunsEveryLineButCommentsAndRefusesWhatIsNoFile) {
    root.write("/data/comments.mask", "# nothing to do\n#stm enable\n");
    EXPECT_EQ(qdss_configure("/data/comments.mask"), 0);
    EXPECT_TRUE(log.has("QDSS : configure\n"));
    EXPECT_FALSE(log.has_containing("to run command"));
    EXPECT_EQ(state(kStm), '0');

    root.write("/data/on.mask", "# STM on\nstm enable\n");
    EXPECT_EQ(qdss_configure("/data/on.mask"), 0);
    EXPECT_EQ(state(kStm), '1');

    log.clear();
    EXPECT_EQ(qdss_configure(nullptr), -1);
    EXPECT_TRUE(log.has("qdss_configure: No mask file\n"));
    EXPECT_EQ(qdss_configure("/data/none.mask"), -1);
    EXPECT_TRUE(log.has("Failed to open file /data/none.mask\n"));
    // Not a regular file: neither a FIFO (no writer would ever come) nor a
    // directory is read.
    mkfifo(root.at("/data/fifo.mask").c_str(), 0600);
    root.mkdir("/data/dir.mask");
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(qdss_configure("/data/fifo.mask"), -1);
    EXPECT_EQ(qdss_configure("/data/dir.mask"), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
}

TEST_F(QdssProgram, ConfigureSurvivesLongManyAndBinaryLines) {
    // A comment longer than a line buffer: its tail is not run as a line.
    std::string comment = "#" + std::string(254, 'x') + "stm enable\n";
    // 10,000 lines, lines of 1,000 characters, 1,000 tokens.
    std::string many;
    for (int i = 0; i < 10000; i++)
        many += i % 2 ? "stm get state\n" : "# comment\n";
    std::string tokens;
    for (int i = 0; i < 1000; i++)
        tokens += "stm ";
    std::string binary;
    for (int i = 0; i < 65536; i++)
        binary.push_back(static_cast<char>((i * 7919) >> 3));
    root.write("/data/big.mask", comment + many + std::string(1000, 'z') + "\n" + tokens + "\n" +
                                     binary + "\nhwe enable\n");
    EXPECT_EQ(qdss_configure("/data/big.mask"), 0);
    EXPECT_EQ(state(kStm), '0');
    EXPECT_EQ(log.count_containing("Success to run command: stm->get->state"), 5000u);
    EXPECT_TRUE(log.has("Agent max param cnt exceeded."));
    // The line after all that still ran.
    EXPECT_EQ(root.read(kHwe), "0x1\n");
}

TEST_F(QdssProgram, ResetSwitchesOffWhatIsOnAndStopsAtTheFirstFailure) {
    root.write(kStm, "1\n");
    root.write(kEtm1, "1\n");
    root.write(kHwe, "1\n");
    EXPECT_EQ(qdss_reset(), 0);
    EXPECT_EQ(state(kStm), '0');
    EXPECT_EQ(state(kEtm1), '0');
    EXPECT_EQ(state(kHwe), '0');
    EXPECT_TRUE(
        log.has_containing("Success to run command: etm->apps->get->state->etm_name->etm3"));

    // An STM that cannot be read fails the reset before any ETM is asked.
    log.clear();
    std::string saved = root.read(kStm);
    unlink(root.at(kStm).c_str());
    root.write(kHwe, "1\n");
    EXPECT_NE(qdss_reset(), 0);
    EXPECT_FALSE(log.has_containing("etm->apps"));
    EXPECT_EQ(state(kHwe), '1');
    root.write(kStm, saved);
}

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

// A reset that fails is tried again at once, a few times, then at the
// handler's pace while the node stays enabled; switched off, never again.
TEST_F(QdssPipeline, FailingResetIsRetriedAtOnceThenAtTheHandlersPace) {
    std::string saved = root.read(kStm);
    unlink(root.at(kStm).c_str());
    qdss_state *s = qdss_new_state();
    s->node = qdss_node("/dev/null", "QDSS/qdss");
    qdss_switch(s->node, true);
    std::thread([s] { qdss_msg_handler(s); }).detach();

    // At once three times, then at the handler's 5-second pace.
    const char *fail = "qdss_msg_handler: Reset qdss block fail\n";
    EXPECT_TRUE(wait_until([&] { return log.count(fail) >= 4; }, 2000)) << log.count(fail);
    usleep(1000 * 1000);
    EXPECT_EQ(log.count(fail), 4u);
    qdss_switch(s->node, false);
    EXPECT_TRUE(wait_until([&] { return log.has("QDSS(R) : kymbal disable qdss"); }, 6000));
    size_t after = log.count(fail);
    usleep(500 * 1000);
    EXPECT_EQ(log.count(fail), after);  // switched off: no more attempts
    EXPECT_EQ(s->qdss_active.load(), 0);
    root.write(kStm, saved);
}

}  // namespace
