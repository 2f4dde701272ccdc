// The pipe capture worker driven through its node record, as the dispatcher
// drives it (workers poll every 3 s, so each start serves several checks),
// and against misbehaving providers and a full disk: no crash, failures drop
// back to the idle poll, no zombies, nothing written lost.
#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/capture/capture_env.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"

namespace {

double now_s() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A provider printing "<prefix><i>" every 0.2 s.
std::string counter(const char *p) {
    return std::string("i=0; while :; do i=$((i+1)); echo ") + p + "$i; sleep 0.2; done";
}

TEST(PipeRestart, ExitingProviderIsRestartedIntoTheSameFileAndReportedEveryTenthTime) {
    LogCapture log;
    std::string dir = fresh_log_root("restart", "R");
    // Each run also counts its inherited descriptors that point into the device
    // root: the open log file must not be one of them. 60 bytes: two reads.
    const std::string run = "0\nrun-0123456789-0123456789-0123456789-0123456789-0123456789\n";
    std::string provider = "ls -l /proc/self/fd/ | grep -c -F '" + capture_root().path() +
                           "'; echo " + run.substr(2, run.size() - 3);
    vorn_node *node = start_pipe_node(provider.c_str(), "R/r", 0);
    const std::string read_none = "Read none from pipe " + provider + " 10 times, so close it! \n";

    std::vector<double> ends;  // when each run was reaped
    auto wait_ends = [&](size_t n) {
        return wait_for(
            [&] {
                while (ends.size() < log.count_containing("pstat = 0x00000000, pid = "))
                    ends.push_back(now_s());
                return ends.size() >= n;
            },
            static_cast<int>(n - ends.size()) * 3000 + 5000);
    };
    ASSERT_TRUE(wait_ends(1)) << log.dump();
    EXPECT_EQ(log.count(read_none), 1u);
    EXPECT_EQ(log.find("Read none").prio, ANDROID_LOG_ERROR);
    ASSERT_TRUE(wait_ends(10));
    EXPECT_EQ(log.count(read_none), 1u);
    ASSERT_TRUE(wait_ends(11));
    EXPECT_EQ(log.count(read_none), 2u);
    for (size_t i = 1; i < ends.size(); i++)  // restarted by the 3 s poll, never sooner
        EXPECT_GE(ends[i] - ends[i - 1], 2.8) << "run " << i;

    ASSERT_EQ(list_dir(dir).size(), 1u);
    std::string content = file_at(dir, 0);
    std::string expect;
    while (expect.size() < content.size())
        expect += run;
    EXPECT_GE(content.size(), 11 * run.size());
    EXPECT_EQ(content, expect);
    EXPECT_FALSE(has_zombie_child());
    EXPECT_TRUE(disable_and_settle(node));
}

TEST(PipeWorker, BinaryProviderThatNeverExitsIsStoppedWithSighupOnDisable) {
    LogCapture log;
    std::string dir = fresh_log_root("binary", "B");
    // More than a pipe holds, and an odd tail: the worker copies it in reads
    // of whatever the pipe holds and writes the tail without waiting for more.
    std::string data(150001, '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>((i * 7919) >> 3);
    capture_root().write("/binary-in", data);
    std::string provider = "echo $$ > " + capture_root().at("/binary-pid") + "; cat " +
                           capture_root().at("/binary-in") + "; exec sleep 1000";
    vorn_node *node = start_pipe_node(provider.c_str(), "B/bin", 0);
    ASSERT_TRUE(wait_for([&] { return file_at(dir, 0).size() >= data.size(); }, 8000));
    EXPECT_TRUE(file_at(dir, 0) == data) << "bytes changed on their way";

    // Silent provider: the worker sits in its 5 s select and notices the disable after it.
    double disabled_at = now_s();
    set_enable(node, false);
    ASSERT_TRUE(wait_for([&] { return log.has_containing("pstat = "); }, 7000)) << log.dump();
    EXPECT_LE(now_s() - disabled_at, 5.5);
    std::string pid = capture_root().read("/binary-pid");
    EXPECT_EQ(log.find("pstat = ").msg, "pstat = 0x00000001, pid = " + pid);  // killed by SIGHUP
    usleep(200 * 1000);
    EXPECT_FALSE(has_zombie_child());
    auto names = list_dir(dir);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(time_suffixes(names[0], "bin"), 1);  // closed, not rolled over
    EXPECT_EQ(file_at(dir, 0), data);
}

TEST(PipeWorker, NewFileRequestAndProviderChangeOpenNewFiles) {
    LogCapture log;
    std::string dir = fresh_log_root("newfile", "N");
    std::string a = counter("a");
    vorn_node *node = start_pipe_node(a.c_str(), "N/nf", 0);
    ASSERT_TRUE(wait_for([&] { return file_at(dir, 0).find("a3\n") != std::string::npos; }, 8000));
    {
        vorn_node_guard g(node);
        node->new_file_request = 1;
    }
    // The worker waits 3 s before it opens the new file; the output waits in the pipe.
    ASSERT_TRUE(wait_for([&] { return file_at(dir, 1).find('\n') != std::string::npos; }, 6000));
    {
        vorn_node_guard g(node);
        EXPECT_EQ(node->new_file_request, 0);
    }
    usleep(1200 * 1000);  // so that the next file's name differs by its second

    // A new provider while running: SIGHUP to the old one, its file closed with
    // its single suffix, a new file for the new command.
    std::string b = counter("b");
    {
        vorn_node_guard g(node);
        static auto *kept = new std::vector<char *>;  // the worker may still read the old text
        kept->push_back(node->log_provider);
        node->log_provider = strdup(b.c_str());
        node->pending_change = 1;
    }
    ASSERT_TRUE(wait_for([&] { return file_at(dir, 2).find("b2\n") != std::string::npos; }, 6000));
    EXPECT_EQ(log.find("pstat = ").msg.rfind("pstat = 0x00000001, pid = ", 0), 0u);
    EXPECT_TRUE(disable_and_settle(node));

    auto names = list_dir(dir);
    ASSERT_EQ(names.size(), 3u);
    for (const auto &n : names)
        EXPECT_EQ(time_suffixes(n, "nf"), 1) << n;
    std::string before = file_at(dir, 0) + file_at(dir, 1), counted;  // no line lost or doubled
    for (int i = 1; counted.size() < before.size(); i++)
        counted += "a" + std::to_string(i) + "\n";
    EXPECT_EQ(before, counted);
    EXPECT_EQ(file_at(dir, 2).rfind("b1\nb2\n", 0), 0u);
    EXPECT_FALSE(has_zombie_child());
}

size_t occurrences(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

TEST(PipeFault, EmptyProviderComplainsOnStderrAndCreatesNothing) {
    LogCapture log;
    std::string dir = fresh_log_root("empty", "E");
    // The message goes to standard error, not the Android log: catch fd 2.
    std::string err_path = capture_root().at("/empty-stderr");
    fflush(stderr);
    int saved = dup(STDERR_FILENO);
    int fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    dup2(fd, STDERR_FILENO);
    close(fd);
    vorn_node *node = start_pipe_node("", "E/empty", 0);
    auto complaints = [&] {
        return occurrences(read_file(err_path), "capture_pipe: no log_provider\n");
    };
    bool twice = wait_for([&] { return complaints() >= 2; }, 8000);  // one per 3 s poll
    size_t seen = complaints();
    bool settled = disable_and_settle(node);
    dup2(saved, STDERR_FILENO);
    close(saved);
    EXPECT_TRUE(twice && seen <= 3 && settled) << seen;
    EXPECT_FALSE(std::filesystem::exists(dir));
    EXPECT_EQ(log.count_containing("no log_provider") + log.count_containing("Failed"), 0u);
}

TEST(PipeFault, ProviderThatLeavesADaemonBehind) {
    LogCapture log;
    std::string dir = fresh_log_root("daemon", "D");
    std::string pid_file = capture_root().at("/daemon-pid");
    // The shell exits at once; its background child keeps the pipe and writes on.
    std::string provider =
        "sh -c 'while :; do echo d; sleep 0.2; done' & echo $! > " + pid_file + "; echo parent";
    vorn_node *node = start_pipe_node(provider.c_str(), "D/daemon", 0);
    ASSERT_TRUE(wait_for([&] { return occurrences(file_at(dir, 0), "d\n") >= 5; }, 8000));
    EXPECT_NE(file_at(dir, 0).find("parent\n"), std::string::npos);
    EXPECT_FALSE(log.has_containing("Read none"));  // no end of output while the daemon lives

    EXPECT_TRUE(disable_and_settle(node));
    EXPECT_EQ(log.find("pstat = ").msg.rfind("pstat = 0x00000000, pid = ", 0), 0u);  // reaped
    EXPECT_FALSE(has_zombie_child());
    // The daemon dies on its next write to the closed pipe.
    pid_t daemon = atoi(read_file(pid_file).c_str());
    EXPECT_TRUE(wait_for([&] { return process_gone(daemon); }, 3000));
}

TEST(PipeFault, FullFileSystemKeepsTheFileAndResumesWhenSpaceReturns) {
    LogCapture log;
    std::string dir = fresh_log_root("full", "F");
    SmallDisk disk(std::filesystem::path(dir).parent_path().string(), "32k");
    if (!disk.ok())
        GTEST_SKIP() << "cannot mount a tmpfs here: " << disk.error();
    vorn_node *node = start_pipe_node("exec yes full-disk-line", "F/full", 0);
    disable_at_end off{node};
    // Each failed write stops the command and drops to the idle poll; the
    // next start continues the same file instead of making an empty one.
    bool retried =
        wait_for([&] { return log.count_containing("Failed to write to log file.") >= 3; }, 15000);
    size_t files = list_dir(dir).size();
    std::string first = file_at(dir, 0);
    // Space returns: writing goes on in the same file.
    disk.resize("1m");
    bool resumed = wait_for([&] { return file_at(dir, 0).size() > first.size() + 4096; }, 10000);
    bool settled = disable_and_settle(node);
    std::string after = file_at(dir, 0);
    size_t files_after = list_dir(dir).size();
    ASSERT_TRUE(retried && settled) << log.dump();
    EXPECT_TRUE(resumed);
    EXPECT_EQ(files, 1u);
    EXPECT_EQ(files_after, 1u);
    EXPECT_GE(log.count_containing("pstat = 0x00000001"), 3u);
    EXPECT_FALSE(has_zombie_child());
    // Nothing written before the disk filled was lost, and it is the
    // provider's output, in order.
    ASSERT_GT(first.size(), 1000u);
    EXPECT_EQ(after.compare(0, first.size(), first), 0);
    const std::string line = "full-disk-line\n";
    for (size_t at = 0; at + line.size() <= 1000; at += line.size())
        ASSERT_EQ(first.compare(at, line.size(), line), 0) << "at " << at;
}

}  // namespace
