// The pipe worker against misbehaving providers and a full disk: no crash,
// failures drop back to the idle poll, no zombies, nothing written lost.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/capture/capture_env.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"

namespace {

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
