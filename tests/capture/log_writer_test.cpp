// The log file writer: naming, roll-over, pruning and its failure paths.
#include <android/log.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "capture/log_name.h"
#include "capture/log_writer.h"
#include "core/gbl_config.h"
#include "platform/root.h"
#include "tests/capture/capture_env.h"
#include "tests/support/full_disk.h"
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
        // Readers of the directory see the writer's names: four rolled over,
        // in the order they were opened, and the current one last.
        vorn_log_name prev, cur;
        for (size_t i = 0; i < names.size(); i++) {
            ASSERT_TRUE(vorn_log_name_parse(names[i], "often", &cur)) << names[i];
            EXPECT_EQ(cur.rolled.empty(), i == 4) << names[i];
            if (i > 0) {
                EXPECT_TRUE(vorn_log_name_before(prev, cur)) << names[i];
            }
            prev = cur;
        }
        EXPECT_EQ(cur.sequence, 3);
        // The pruning keeps the newest: the first file goes.
        EXPECT_EQ(
            rotate_log_files((gbl_config.log_path + std::string("/Often")).c_str(), "often", 4), 5);
        EXPECT_EQ(list_dir(dir).front(), names[1]);
        return;
    }
    GTEST_SKIP() << "never got four roll-overs within one second";
}

// The writer numbers a second's files from the last number it used; a name
// someone else took in that second is stepped over, after the highest taken.
TEST_F(LogWriterTest, NameTakenInTheSameSecondIsSteppedOver) {
    for (int attempt = 0; attempt < 3; attempt++) {
        open("Taken/taken", 100);
        next_second();
        time_t start = time(nullptr);
        ASSERT_EQ(write(std::string(11, '1')), 11);  // opens this second's plain name
        std::string plain = capture_root().at(path);
        write_file(plain + "_0001", "not ours");
        write_file(plain + "_0003", "not ours either");
        ASSERT_EQ(write(std::string(11, '2')), 11);
        std::string fourth = capture_root().at(path);
        ASSERT_EQ(write(std::string(11, '3')), 11);
        std::string fifth = capture_root().at(path);
        if (time(nullptr) != start) {  // crossed a second: try again
            close_log_file(&file);
            continue;
        }
        EXPECT_EQ(fourth, plain + "_0004");
        EXPECT_EQ(fifth, plain + "_0005");
        EXPECT_EQ(read_file(plain + "_0001"), "not ours");
        EXPECT_EQ(read_file(plain + "_0003"), "not ours either");
        return;
    }
    GTEST_SKIP() << "never got three roll-overs within one second";
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

// A failed open gives gbl_config_mutex back: held, it would stop every other
// worker and the socket thread's log-path change.
TEST_F(LogWriterTest, FailedOpenLetsTheGlobalLockGo) {
    std::string root = device_log_root("blocked");
    block_log_root(root);
    node = make_node("Default", VORN_KIND_PIPE, "true", "B/b", 0);
    EXPECT_EQ(open_log_file(node, &file, path), -1);
    unblock_log_root(root);
    EXPECT_TRUE(log.has_containing("Failed to create the directory"));
    ASSERT_EQ(pthread_mutex_trylock(&gbl_config_mutex), 0);
    pthread_mutex_unlock(&gbl_config_mutex);
}

// A full disk loses nothing already written: the failed file is continued at
// the next open (no new empty file per poll) and takes the data once space
// returns; pruning gives up empty files before any file with data.
TEST_F(LogWriterTest, FullDiskContinuesTheFileAndPruningKeepsData) {
    dir = fresh_log_root("full", "Full/");
    SmallDisk disk(dir, "16k");
    if (!disk.ok())
        GTEST_SKIP() << "cannot mount a tmpfs here: " << disk.error();
    node = make_node("Default", VORN_KIND_PIPE, "true", "Full/full", 0);
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    const std::string first_path = path;
    const std::string chunk(1000, 'a');
    int failed_at = -1;
    for (int i = 0; i < 100 && failed_at < 0; i++) {
        if (write(chunk) != 1000)
            failed_at = i;
    }
    ASSERT_GE(failed_at, 0) << "the disk never filled";
    for (int poll = 0; poll < 5; poll++) {  // a worker's polls while the disk stays full
        close_log_file(&file);
        next_second();
        ASSERT_EQ(open_log_file(node, &file, path), 0);
        EXPECT_EQ(path, first_path);
        write(chunk);  // fails now, or at its flush
    }
    EXPECT_EQ(list_dir(dir).size(), 1u);
    size_t kept = file_at(dir, 0).size();
    EXPECT_GE(kept, 8000u);
    close_log_file(&file);
    ASSERT_TRUE(disk.resize("256k"));
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    EXPECT_EQ(path, first_path);
    EXPECT_EQ(write("after"), 5);
    EXPECT_EQ(list_dir(dir).size(), 1u);
    std::string content = file_at(dir, 0);
    EXPECT_EQ(content.substr(0, kept), std::string(kept, 'a'));
    EXPECT_EQ(content.substr(content.size() - 5), "after");
    // A close that follows no failure starts a new file next time.
    close_log_file(&file);
    next_second();
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    EXPECT_NE(path, first_path);
    close_log_file(&file);

    // Nine files with data, then five empty ones: pruning to ten removes four
    // empty ones (never the newest, which may be the file being written).
    for (const std::string &n : list_dir(dir))
        fs::remove(dir + n);
    for (int i = 0; i < 9; i++)
        write_file(dir + "full.2001_01_01-00_00_0" + std::to_string(i), "data");
    for (int i = 0; i < 5; i++)
        write_file(dir + "full.2002_01_01-00_00_0" + std::to_string(i), "");
    EXPECT_EQ(rotate_log_files((std::string(gbl_config.log_path) + "/Full").c_str(), "full", 10),
              14);
    auto names = list_dir(dir);
    ASSERT_EQ(names.size(), 10u);
    EXPECT_EQ(names.front(), "full.2001_01_01-00_00_00");
    EXPECT_EQ(names.back(), "full.2002_01_01-00_00_04");
    EXPECT_EQ(names[8], "full.2001_01_01-00_00_08");
}

TEST(LogName, ParsesOnlyTheNodesOwnNames) {
    vorn_log_name n;
    ASSERT_TRUE(vorn_log_name_parse("dmesg.2024_05_01-13_02_03", "dmesg", &n));
    EXPECT_EQ(n.opened, "2024_05_01-13_02_03");
    EXPECT_EQ(n.sequence, 0);
    EXPECT_EQ(n.rolled, "");
    ASSERT_TRUE(
        vorn_log_name_parse("dmesg.2024_05_01-13_02_03_0012.2024_05_01-13_02_04", "dmesg", &n));
    EXPECT_EQ(n.sequence, 12);
    EXPECT_EQ(n.rolled, "2024_05_01-13_02_04");
    for (const char *other :
         {"dmesg2.2024_05_01-13_02_03", "dmesg.2024_05_01-13_02_3", "dmesg.2024_05_01-13_02_03_",
          "dmesg.2024_05_01-13_02_03.x", "dmesg.2024_05_01-13_02_03.2024_05_01-13_02_04.tmp",
          "dmesg", "dmesg.", "kernel.2024_05_01-13_02_03"})
        EXPECT_FALSE(vorn_log_name_parse(other, "dmesg", &n)) << other;
    EXPECT_EQ(vorn_log_sequence_name("a.b", 0), "a.b");
    EXPECT_EQ(vorn_log_sequence_name("a.b", 7), "a.b_0007");
}

}  // namespace
