// The log file writer: naming, roll-over, pruning and its failure paths.
#include <android/log.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "capture/log_writer.h"
#include "core/gbl_config.h"
#include "platform/root.h"
#include "tests/capture/capture_env.h"
#include "tests/support/log_capture.h"

namespace {

namespace fs = std::filesystem;

// Sleeps until just past the start of the next wall-clock second, so that a
// file opened next gets a name of its own.
void next_second() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    usleep(static_cast<useconds_t>((1000000000L - ts.tv_nsec) / 1000 + 100000));
}

class LogWriterTest : public ::testing::Test {
  protected:
    void open(const char *filepath, int32_t size, int32_t global_size = 0) {
        std::string fp = filepath;
        dir = fresh_log_root("w", fp.substr(0, fp.rfind('/') + 1), global_size);
        node = make_node("Default", VORN_KIND_PIPE, "true", filepath, size);
        ASSERT_EQ(open_log_file(node, &file, path), 0) << log.dump();
    }
    int write(const std::string &data) {
        int ret = write_log_data(data.data(), static_cast<int>(data.size()), &file, path, node);
        fflush(file.fp);
        return ret;
    }
    void TearDown() override { close_log_file(&file); }

    LogCapture log;
    std::string dir;
    vorn_node *node = nullptr;
    vorn_log_file file{};
    char path[VORN_PATH_MAX] = "";
};

// The budget is the node's size, or the global size when the node's is 0.
class RollOverTest : public LogWriterTest,
                     public ::testing::WithParamInterface<std::pair<int32_t, int32_t>> {};

TEST_P(RollOverTest, RollsAfterTheWriteThatPassesATenth) {
    time_t before = time(nullptr);
    open("Roll/roll", GetParam().first, GetParam().second);
    std::string first = path;
    // "<root>/" + "/" + log_filepath + "." + opening time; the doubled slash is harmless.
    ASSERT_EQ(first.rfind(std::string(gbl_config.log_path) + "/Roll/roll.", 0), 0u) << first;
    struct tm tm {};
    ASSERT_NE(strptime(first.c_str() + first.size() - 19, VORN_TIME_FORMAT, &tm), nullptr);
    tm.tm_isdst = -1;
    EXPECT_GE(mktime(&tm), before);

    EXPECT_EQ(write(std::string(95, 'a')), 95);
    EXPECT_EQ(list_dir(dir).size(), 1u);
    next_second();
    EXPECT_EQ(write(std::string(10, 'b')), 10);  // 105 > 100: rolls after the write
    EXPECT_EQ(file.written, 0u);
    EXPECT_EQ(write("next"), 4);
    auto names = list_dir(dir);
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names[0].rfind(fs::path(first).filename().string(), 0), 0u);
    EXPECT_EQ(time_suffixes(names[0], "roll"), 2);
    EXPECT_EQ(file_at(dir, 0), std::string(95, 'a') + std::string(10, 'b'));
    EXPECT_EQ(time_suffixes(names[1], "roll"), 1);
    EXPECT_EQ(file_at(dir, 1), "next");
}

INSTANTIATE_TEST_SUITE_P(NodeOrGlobalBudget, RollOverTest,
                         ::testing::Values(std::make_pair(1000, 5), std::make_pair(0, 1000)));

TEST_F(LogWriterTest, NoBudgetAnywhereNeverRolls) {
    open("Forever/forever", 0, 0);
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(write(std::string(4096, 'x')), 4096);
    ASSERT_EQ(list_dir(dir).size(), 1u);
    EXPECT_EQ(file_at(dir, 0).size(), 64u * 4096u);
}

TEST_F(LogWriterTest, PruningKeepsTenAndLeavesOtherPrefixesAlone) {
    open("Shared/dmesg", 100);
    auto old = [](int i) { return "dmesg.2001_01_01-00_00_1" + std::to_string(i) + ".x"; };
    for (int i = 0; i < 8; i++)
        write_file(dir + old(i), "old");
    write_file(dir + "kernel.2000_01_01-00_00_00", "another node");
    // Nine of the node's files: nothing to remove at the start of capture.
    EXPECT_EQ(scan_file_logpath("Shared/dmesg", 9), 9);
    EXPECT_FALSE(log.has_containing("for log rotation"));
    write_file(dir + old(8), "old");

    next_second();
    ASSERT_EQ(write(std::string(11, 'z')), 11);  // ten closed files and the new one
    auto names = list_dir(dir);
    EXPECT_EQ(names.size(), 11u);
    EXPECT_EQ(names.front(), old(1));
    EXPECT_EQ(names.back(), "kernel.2000_01_01-00_00_00");
    LogLine l = log.find("for log rotation");
    EXPECT_EQ(l.msg,
              "Remove " + old(0) + " from " + gbl_config.log_path + "/Shared for log rotation");
    EXPECT_EQ(l.prio, ANDROID_LOG_DEBUG);
    EXPECT_EQ(rotate_log_files("/no/such/dir", "x", 1), -1);
}

// Roll-overs within one second give each file a name of its own; the names
// sort in the order the files were written, so pruning takes the oldest.
TEST_F(LogWriterTest, RollOversInOneSecondKeepEveryFile) {
    for (int attempt = 0; attempt < 3; attempt++) {
        open("Often/often", 100);
        next_second();
        time_t start = time(nullptr);
        const std::string parts[] = {std::string(11, '1'), std::string(11, '2'),
                                     std::string(11, '3'), std::string(11, '4'), "55"};
        for (const auto &part : parts)
            ASSERT_EQ(write(part), static_cast<int>(part.size()));
        if (time(nullptr) != start) {  // crossed a second: try again
            close_log_file(&file);
            continue;
        }
        close_log_file(&file);
        auto names = list_dir(dir);
        ASSERT_EQ(names.size(), 5u);
        for (size_t i = 0; i < names.size(); i++)
            EXPECT_EQ(file_at(dir, i), parts[i]) << names[i];
        // The first file was opened in the second before; the second file takes
        // the plain name of this second, the third "_0001" after it.
        EXPECT_EQ(time_suffixes(names[1], "often"), 2);
        EXPECT_EQ(names[2].substr(names[1].size() - 20, 5), "_0001") << names[2];
        // The pruning keeps the newest: the first file goes.
        EXPECT_EQ(
            rotate_log_files((gbl_config.log_path + std::string("/Often")).c_str(), "often", 4), 5);
        EXPECT_EQ(list_dir(dir).front(), names[1]);
        return;
    }
    GTEST_SKIP() << "never got four roll-overs within one second";
}

TEST_F(LogWriterTest, FilepathWithoutSlashWritesThenFailsItsFirstRollOver) {
    open("flat", 1000);
    EXPECT_EQ(write(std::string(60, 'f')), 60);
    next_second();
    EXPECT_EQ(write(std::string(60, 'g')), -1);
    LogLine l = log.find("There is no / in");
    EXPECT_EQ(l.msg, "There is no / in flat.\n");
    EXPECT_EQ(l.prio, ANDROID_LOG_ERROR);
    EXPECT_EQ(file_at(dir, 0), std::string(60, 'f') + std::string(60, 'g'));
}

TEST_F(LogWriterTest, RemovedLogRootComesBackAtTheNextRollOver) {
    open("Gone/gone", 1000);
    ASSERT_EQ(write(std::string(50, 'a')), 50);
    fs::remove_all(capture_root().at(gbl_config.log_path));
    next_second();
    ASSERT_EQ(write(std::string(60, 'b')), 60);  // into the unlinked file, then the roll-over
    ASSERT_EQ(write("after"), 5);
    ASSERT_EQ(list_dir(dir).size(), 1u);
    EXPECT_EQ(file_at(dir, 0), "after");
}

}  // namespace
