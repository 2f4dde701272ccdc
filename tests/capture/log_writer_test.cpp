// The log file writer: naming, roll-over, pruning and its failure paths.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include <android/log.h>

#include "capture/log_writer.h"
#include "core/gbl_config.h"
#include "platform/root.h"
#include "tests/capture/capture_env.h"
#include "tests/support/log_capture.h"

namespace {

namespace fs = std::filesystem;

class LogWriterTest : public ::testing::Test {
  protected:
    // A node "<tag>/<prefix>" under a log root of its own.
    void SetUpNode(const char *filepath, int32_t node_size, int32_t global_size = 0) {
        log_root = fresh_log_root("w", global_size);
        node = make_node("Default", 0x80, "true", filepath, node_size);
        std::string fp = filepath;
        size_t slash = fp.rfind('/');
        node_dir =
            capture_root().at(log_root + (slash == std::string::npos ? "" : fp.substr(0, slash)));
        prefix = slash == std::string::npos ? fp : fp.substr(slash + 1);
    }
    void TearDown() override { close_log_file(&file); }

    std::string host(const char *device_path) const { return vorn_path(device_path); }
    std::string content(const std::string &name) const { return read_file(node_dir + "/" + name); }
    int write(const std::string &data) {
        return write_log_data(data.data(), static_cast<int>(data.size()), &file, path, node);
    }

    LogCapture log;
    std::string log_root, node_dir, prefix;
    vorn_node *node = nullptr;
    vorn_log_file file{};
    char path[VORN_PATH_MAX] = "";
};

TEST_F(LogWriterTest, NamesTheFileAfterRootFilepathAndOpeningTime) {
    SetUpNode("Dmesg/dmesg", 0);
    time_t before = time(nullptr);
    ASSERT_EQ(open_log_file(node, &file, path), 0) << log.dump();
    time_t after = time(nullptr);
    ASSERT_NE(file.fp, nullptr);

    // The root keeps its trailing "/" and gets another: the doubled slash is harmless.
    std::string p = path;
    std::string expect_start = log_root + "/Dmesg/dmesg.";
    ASSERT_EQ(p.rfind(expect_start, 0), 0u) << p;
    struct tm tm {};
    ASSERT_NE(strptime(p.c_str() + expect_start.size(), "%Y_%m_%d-%H_%M_%S", &tm), nullptr) << p;
    tm.tm_isdst = -1;
    time_t opened = mktime(&tm);
    EXPECT_GE(opened, before);
    EXPECT_LE(opened, after);

    auto names = list_dir(node_dir);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(has_one_suffix(names[0], "dmesg")) << names[0];
    EXPECT_TRUE(fs::equivalent(host(path), node_dir + "/" + names[0]));
}

TEST_F(LogWriterTest, OpenFailuresLeaveNoStreamAndSayWhy) {
    SetUpNode("Blocked/blocked", 0);
    // The node directory's parent is a regular file: mkdir -p fails.
    write_file(capture_root().at(log_root) + "Blocked", "not a directory");
    file.fp = stdin;  // must be cleared, not closed
    EXPECT_EQ(open_log_file(node, &file, path), -1);
    EXPECT_EQ(file.fp, nullptr);
    LogLine l = log.find("Failed to create the directory: ");
    EXPECT_EQ(l.msg, "Failed to create the directory: " + log_root + "/Blocked\n");
    EXPECT_EQ(l.prio, ANDROID_LOG_ERROR);

    // The directory exists but takes no new files.
    SetUpNode("Proc/proc", 0);
    capture_root().mkdir(log_root);
    ASSERT_EQ(symlink("/proc/self", (capture_root().at(log_root) + "Proc").c_str()), 0);
    EXPECT_EQ(open_log_file(node, &file, path), -1);
    EXPECT_EQ(file.fp, nullptr);
    l = log.find("Failed to create the log file: ");
    EXPECT_EQ(l.prio, ANDROID_LOG_ERROR);
    EXPECT_TRUE(l.msg.rfind("Failed to create the log file: " + log_root + "/Proc/proc.", 0) == 0)
        << l.msg;
}

// The budget is the node's size, or the global size when the node's is 0.
class RollOverTest : public LogWriterTest,
                     public ::testing::WithParamInterface<std::pair<int32_t, int32_t>> {};

TEST_P(RollOverTest, RollsAfterTheWriteThatPassesATenth) {
    auto [node_size, global_size] = GetParam();
    SetUpNode("Roll/roll", node_size, global_size);
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    std::string first_path = path;
    EXPECT_EQ(write(std::string(95, 'a')), 95);
    EXPECT_EQ(file.written, 95u);
    EXPECT_EQ(list_dir(node_dir).size(), 1u);

    // A later second, so that the new file gets a name of its own.
    sleep_to_next_second();
    EXPECT_EQ(write(std::string(10, 'b')), 10);
    EXPECT_EQ(file.written, 0u);
    EXPECT_NE(first_path, path);
    EXPECT_EQ(write("next"), 4);
    fflush(file.fp);

    auto names = list_dir(node_dir);
    ASSERT_EQ(names.size(), 2u) << testing::PrintToString(names);
    // Sorted: the closed file (older opening time) comes first.
    EXPECT_TRUE(has_two_suffixes(names[0], "roll")) << names[0];
    EXPECT_EQ(names[0].rfind(first_path.substr(first_path.rfind('/') + 1), 0), 0u);
    EXPECT_EQ(content(names[0]), std::string(95, 'a') + std::string(10, 'b'));
    EXPECT_TRUE(has_one_suffix(names[1], "roll")) << names[1];
    EXPECT_TRUE(fs::equivalent(host(path), node_dir + "/" + names[1]));
    EXPECT_EQ(content(names[1]), "next");
}

INSTANTIATE_TEST_SUITE_P(NodeOrGlobalBudget, RollOverTest,
                         ::testing::Values(std::make_pair(1000, 0), std::make_pair(0, 1000),
                                           std::make_pair(1000, 5)));

TEST_F(LogWriterTest, NoBudgetAnywhereNeverRolls) {
    SetUpNode("Forever/forever", 0, 0);
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    std::string chunk(4096, 'x');
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(write(chunk), 4096);
    fflush(file.fp);
    auto names = list_dir(node_dir);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(fs::file_size(node_dir + "/" + names[0]), 64u * 4096u);
    EXPECT_EQ(file.written, 64u * 4096u);
}

TEST_F(LogWriterTest, RollOverPrunesToTenAndLeavesOtherPrefixesAlone) {
    SetUpNode("Shared/dmesg", 100);
    capture_root().mkdir(log_root + "Shared");
    // Nine closed files older than anything opened now, and files of others.
    for (int i = 0; i < 9; i++) {
        write_file(
            node_dir + "/dmesg.2001_01_01-00_00_0" + std::to_string(i) + ".2001_01_01-00_00_09",
            "old");
    }
    write_file(node_dir + "/kernel.2000_01_01-00_00_00", "other node");
    write_file(node_dir + "/dmes", "shorter than the prefix");

    ASSERT_EQ(open_log_file(node, &file, path), 0);
    sleep_to_next_second();
    ASSERT_EQ(write(std::string(11, 'z')), 11);  // rolls: ten closed + the new one

    auto names = list_dir(node_dir);
    EXPECT_EQ(names.size(), 12u) << testing::PrintToString(names);
    EXPECT_EQ(
        std::count(names.begin(), names.end(), "dmesg.2001_01_01-00_00_00.2001_01_01-00_00_09"), 0);
    EXPECT_EQ(
        std::count(names.begin(), names.end(), "dmesg.2001_01_01-00_00_01.2001_01_01-00_00_09"), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "kernel.2000_01_01-00_00_00"), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "dmes"), 1);
    LogLine l = log.find("for log rotation");
    EXPECT_EQ(l.msg, "Remove dmesg.2001_01_01-00_00_00.2001_01_01-00_00_09 from " + log_root +
                         "/Shared for log rotation");
    EXPECT_EQ(l.prio, ANDROID_LOG_DEBUG);
    EXPECT_EQ(log.count_containing("for log rotation"), 1u);
}

TEST_F(LogWriterTest, TwoRollOversInOneSecondKeepEveryByte) {
    // Opened in one second, rolled twice in the next: the second roll-over
    // opens a file of the same name as the current one, so the move takes the
    // file just opened along. Accepted; what matters is that no data is lost.
    for (int attempt = 0; attempt < 3; attempt++) {
        SetUpNode("Twice/twice", 100);
        ASSERT_EQ(open_log_file(node, &file, path), 0);
        sleep_to_next_second();
        time_t start = time(nullptr);
        ASSERT_EQ(write(std::string(11, '1')), 11);
        std::string second_path = path;
        ASSERT_EQ(write(std::string(11, '2')), 11);
        ASSERT_EQ(write("33"), 2);
        fflush(file.fp);
        if (time(nullptr) != start) {  // crossed a second: try again
            close_log_file(&file);
            continue;
        }
        EXPECT_EQ(second_path, path);
        EXPECT_FALSE(fs::exists(host(path)));  // the current stream lives under the moved name
        auto names = list_dir(node_dir);
        ASSERT_EQ(names.size(), 2u) << testing::PrintToString(names);
        EXPECT_TRUE(has_two_suffixes(names[0], "twice"));
        EXPECT_TRUE(has_two_suffixes(names[1], "twice"));
        EXPECT_EQ(content(names[0]), std::string(11, '1'));
        EXPECT_EQ(content(names[1]), std::string(11, '2') + "33");
        EXPECT_EQ(names[1], second_path.substr(second_path.rfind('/') + 1) +
                                names[1].substr(names[1].size() - 20));
        return;
    }
    GTEST_SKIP() << "never got two roll-overs within one second";
}

TEST_F(LogWriterTest, FilepathWithoutSlashWritesThenFailsItsFirstRollOver) {
    SetUpNode("flat", 1000);
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    EXPECT_EQ(std::string(path).rfind(log_root + "/flat.", 0), 0u) << path;
    EXPECT_EQ(write(std::string(60, 'f')), 60);
    sleep_to_next_second();
    EXPECT_EQ(write(std::string(60, 'g')), -1);
    LogLine l = log.find("There is no / in");
    EXPECT_EQ(l.msg, "There is no / in flat.\n");
    EXPECT_EQ(l.prio, ANDROID_LOG_ERROR);
    // The data is kept in the closed file, and the new one is open.
    ASSERT_NE(file.fp, nullptr);
    auto names = list_dir(capture_root().at(log_root));
    ASSERT_EQ(names.size(), 2u);
    EXPECT_TRUE(has_two_suffixes(names[0], "flat"));
    EXPECT_EQ(read_file(capture_root().at(log_root) + names[0]),
              std::string(60, 'f') + std::string(60, 'g'));
}

TEST_F(LogWriterTest, RemovedLogRootComesBackAtTheNextRollOver) {
    SetUpNode("Gone/gone", 1000);
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    ASSERT_EQ(write(std::string(50, 'a')), 50);
    fs::remove_all(capture_root().at(log_root));
    // Writes into the unlinked file still succeed; the roll-over recreates the tree.
    sleep_to_next_second();
    ASSERT_EQ(write(std::string(60, 'b')), 60);
    ASSERT_EQ(write("after"), 5);
    fflush(file.fp);
    auto names = list_dir(node_dir);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(has_one_suffix(names[0], "gone"));
    EXPECT_EQ(content(names[0]), "after");
}

TEST_F(LogWriterTest, FullFileSystemIsReportedAsAShortWrite) {
    SetUpNode("Full/full", 0);
    std::string mnt = capture_root().at(log_root);
    fs::create_directories(mnt);
    if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=32k") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(errno);
    struct Unmount {
        std::string dir;
        ~Unmount() { umount2(dir.c_str(), MNT_DETACH); }
    } unmount{mnt};
    ASSERT_EQ(open_log_file(node, &file, path), 0);
    std::string data;
    int ret = 1000;
    for (int i = 0; i < 64; i++) {
        std::string chunk(1000, static_cast<char>('a' + i % 26));
        ret = write(chunk);
        if (ret != 1000)
            break;
        data += chunk;
        fflush(file.fp);  // a failed flush shows on the next write
    }
    EXPECT_NE(ret, 1000);
    LogLine l = log.find("Failed to write to log file. write_len = ");
    EXPECT_EQ(l.prio, ANDROID_LOG_ERROR) << log.dump();
    close_log_file(&file);
    // What is on disk is exactly a prefix of what was accepted.
    std::string on_disk = read_file(host(path));
    EXPECT_GT(on_disk.size(), 0u);
    EXPECT_LE(on_disk.size(), data.size());
    EXPECT_EQ(on_disk, data.substr(0, on_disk.size()));
}

TEST_F(LogWriterTest, ScanKeepsTheNewestAndReportsWhatItFound) {
    SetUpNode("Scan/scan", 0);
    capture_root().mkdir(log_root + "Scan");
    struct {
        int files, keep, found, left;
    } cases[] = {{0, 9, 0, 0}, {9, 9, 9, 9}, {12, 9, 12, 9}, {3, 1, 3, 1}};
    for (const auto &c : cases) {
        fs::remove_all(node_dir);
        fs::create_directories(node_dir);
        auto name = [](int i) { return "scan.2001_01_01-00_00_" + std::to_string(10 + i); };
        for (int i = 0; i < c.files; i++)
            write_file(node_dir + "/" + name(i), "");
        log.clear();
        EXPECT_EQ(scan_file_logpath("Scan/scan", c.keep), c.found) << c.files;
        auto names = list_dir(node_dir);
        ASSERT_EQ(static_cast<int>(names.size()), c.left) << c.files;
        if (c.left > 0) {  // the newest stay
            EXPECT_EQ(names.front(), name(c.files - c.left));
            EXPECT_EQ(names.back(), name(c.files - 1));
        }
        EXPECT_EQ(log.count_containing("for log rotation"), static_cast<size_t>(c.files - c.left));
    }
    EXPECT_EQ(log.find("scan_file_logpath, dirpath:").msg,
              "scan_file_logpath, dirpath:" + log_root +
                  "/Scan, logname_prefix:scan, full_logpath:" + log_root + "/Scan/scan");

    log.clear();
    EXPECT_EQ(rotate_log_files("/no/such/dir", "x", 1), -1);
    EXPECT_EQ(log.lines().size(), 0u);

    // An empty log root and a name without "/" would put files in "/".
    fresh_log_root("w");
    pthread_mutex_lock(&gbl_config_mutex);
    gbl_config.log_path[0] = '\0';
    pthread_mutex_unlock(&gbl_config_mutex);
    EXPECT_EQ(scan_file_logpath("bare", 9), -1);
    EXPECT_EQ(log.find("Unable to place").msg, "Unable to place logs in root directory\n");
}

TEST(ReplaceString, ReplacesTheFirstOccurrenceOnly) {
    struct {
        const char *text, *token, *value, *expect;
    } cases[] = {
        {"tcpdump -w #path.pcap", "#path", "/sdcard/logs//Tcp/tcp",
         "tcpdump -w /sdcard/logs//Tcp/tcp.pcap"},
        {"no token here", "#mask", "x", "no token here"},
        {"#mask #mask", "#mask", "0x1", "0x1 #mask"},
        {"-m #mask_link", "#mask", "M", "-m M_link"},
        {"#path", "#path", "", ""},
    };
    for (const auto &c : cases) {
        char *out = replace_string(c.text, c.token, c.value);
        ASSERT_NE(out, nullptr);
        EXPECT_STREQ(out, c.expect);
        EXPECT_NE(out, c.text);
        free(out);
    }
}

TEST_F(LogWriterTest, WaitLogDirCreatesTheRootOrGivesUp) {
    log_root = fresh_log_root("d");
    // Writable already: nothing to say.
    capture_root().mkdir("/d-ready");
    EXPECT_EQ(wait_log_dir("/d-ready", 0), 0);
    EXPECT_EQ(log.lines().size(), 0u);

    // Missing parents: mkdir fails, "mkdir -p" makes the whole path.
    EXPECT_EQ(wait_log_dir("/d-new/a/b", 0), 0);
    EXPECT_TRUE(fs::is_directory(host("/d-new/a/b")));
    LogLine l = log.find("is not available");
    EXPECT_EQ(l.msg, "Dir /d-new/a/b is not available, create it and start logging.");
    EXPECT_EQ(l.prio, ANDROID_LOG_DEBUG);

    // A regular file in the way: one attempt, then the shell's status.
    capture_root().write("/d-file", "x");
    time_t start = time(nullptr);
    EXPECT_NE(wait_log_dir("/d-file/sub", 1), 0);
    EXPECT_LE(time(nullptr) - start, 1);
}

}  // namespace
