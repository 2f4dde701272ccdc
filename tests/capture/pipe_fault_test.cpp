// The pipe worker against misbehaving providers and a failing log root: no
// crash, failures drop back to the idle poll, no zombies.
#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "capture/capture_pipe.h"
#include "tests/capture/capture_env.h"
#include "tests/support/log_capture.h"

namespace {

namespace fs = std::filesystem;

// Standard error of the whole process into a file, for the messages the
// worker prints there instead of the Android log.
class StderrCapture {
  public:
    StderrCapture() : path_(capture_root().at("/stderr-" + std::to_string(++count_))) {
        fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~StderrCapture() {
        fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    std::string text() const { return read_file(path_); }

  private:
    static inline int count_ = 0;
    std::string path_;
    int saved_;
};

size_t occurrences(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

bool process_gone(pid_t pid) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const char *p = strrchr(stat.c_str(), ')');
    return p == nullptr || p[2] == 'Z' || p[2] == 'X';
}

TEST(StopChild, HangsUpWaitsAndReleasesThePipe) {
    LogCapture log;
    EXPECT_EQ(stop_child(nullptr), -1);

    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sleep", "sleep", "100", static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    auto *child = static_cast<capture_child *>(malloc(sizeof(capture_child)));
    *child = {fds[0], pid};
    EXPECT_EQ(stop_child(child), SIGHUP);  // the raw status of a process killed by SIGHUP
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(log.find("pstat").msg, "pstat = 0x00000001, pid = " + std::to_string(pid) + "\n");

    // A pid that is not our child: the failed wait is reported and returned.
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    close(fds[1]);
    child = static_cast<capture_child *>(malloc(sizeof(capture_child)));
    *child = {fds[0], pid};
    log.clear();
    EXPECT_EQ(stop_child(child), -1);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    LogLine l = log.find("pstat");
    EXPECT_EQ(l.msg, "pstat = 0x00000000, pid = -1\n");
    EXPECT_EQ(l.prio, ANDROID_LOG_ERROR);
}

TEST(PipeFault, EmptyProviderComplainsOnStderrAndCreatesNothing) {
    LogCapture log;
    std::string log_root = fresh_log_root("empty");
    StderrCapture err;
    vorn_node *node = start_pipe_node("Empty", "", "Empty/empty", 0, true);
    // One complaint per 3 s poll.
    ASSERT_TRUE(wait_for(
        [&] { return occurrences(err.text(), "capture_pipe: no log_provider\n") >= 2; }, 8000));
    EXPECT_LE(occurrences(err.text(), "capture_pipe: no log_provider\n"), 3u);
    EXPECT_FALSE(fs::exists(capture_root().at(log_root + "Empty")));
    EXPECT_FALSE(log.has_containing("Failed to start the program"));
    EXPECT_FALSE(log.has_containing("no log_provider"));  // not in the Android log
    EXPECT_TRUE(disable_and_settle(node));
}

TEST(PipeFault, ProviderThatLeavesADaemonBehind) {
    LogCapture log;
    std::string log_root = fresh_log_root("daemon");
    std::string pid_file = capture_root().at("/daemon-pid");
    // The shell exits at once; its background child keeps the pipe and writes on.
    std::string provider =
        "sh -c 'while :; do echo d; sleep 0.2; done' & echo $! > " + pid_file + "; echo parent";
    vorn_node *node = start_pipe_node("Daemon", provider.c_str(), "Daemon/daemon", 0, true);
    std::string dir = capture_root().at(log_root + "Daemon");
    auto content = [&] {
        auto names = list_dir(dir);
        return names.empty() ? std::string() : read_file(dir + "/" + names[0]);
    };
    ASSERT_TRUE(wait_for([&] { return occurrences(content(), "d\n") >= 5; }, 8000));
    EXPECT_NE(content().find("parent\n"), std::string::npos);
    EXPECT_FALSE(log.has_containing("Read none"));  // the pipe never ends while the daemon lives

    EXPECT_TRUE(disable_and_settle(node));
    // The exited shell is reaped; the daemon dies on its next write to the closed pipe.
    EXPECT_EQ(log.find("pstat = ").msg.rfind("pstat = 0x00000000, pid = ", 0), 0u);
    EXPECT_EQ(zombie_children(), 0);
    pid_t daemon = static_cast<pid_t>(atoi(read_file(pid_file).c_str()));
    ASSERT_GT(daemon, 0);
    EXPECT_TRUE(wait_for([&] { return process_gone(daemon); }, 3000));
    if (!process_gone(daemon))
        kill(daemon, SIGKILL);
}

TEST(PipeFault, FullFileSystemDropsToTheIdlePollAndRetries) {
    LogCapture log;
    std::string log_root = fresh_log_root("full");
    std::string mnt = capture_root().at(log_root);
    fs::create_directories(mnt);
    if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=32k") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(errno);
    struct Unmount {
        std::string dir;
        ~Unmount() { umount2(dir.c_str(), MNT_DETACH); }
    } unmount{mnt};

    vorn_node *node = start_pipe_node("Full", "exec yes full-disk-line", "Full/full", 0, true);
    // Each failed write stops the command and closes the file; the next poll
    // starts over with a new file, which fails again.
    ASSERT_TRUE(
        wait_for([&] { return log.count_containing("Failed to write to log file.") >= 2; }, 12000))
        << log.dump();
    EXPECT_GE(log.count_containing("pstat = 0x00000001"), 1u);
    EXPECT_TRUE(disable_and_settle(node));
    EXPECT_EQ(zombie_children(), 0);

    // What reached the disk is whole lines of the provider's output, in order.
    std::string dir = mnt + "Full";
    auto names = list_dir(dir);
    ASSERT_GE(names.size(), 2u);
    std::string first = read_file(dir + "/" + names[0]);
    ASSERT_GT(first.size(), 1000u);
    std::string line = "full-disk-line\n";
    std::string whole = first.substr(0, first.size() - first.size() % line.size());
    for (size_t at = 0; at < whole.size(); at += line.size())
        ASSERT_EQ(whole.compare(at, line.size(), line), 0) << "at " << at;
}

TEST(PipeFault, LogRootRemovedWhileWritingComesBackAtTheNextRollOver) {
    LogCapture log;
    std::string log_root = fresh_log_root("removed");
    // About 300 bytes a second against a tenth of 400: a roll-over every second or two.
    const char *provider =
        "i=0; while :; do i=$((i+1)); printf 'line %06d ......................\\n' $i; "
        "sleep 0.1; done";
    vorn_node *node = start_pipe_node("Removed", provider, "Removed/removed", 4000, true);
    std::string dir = capture_root().at(log_root + "Removed");
    ASSERT_TRUE(wait_for([&] { return list_dir(dir).size() >= 2; }, 9000)) << log.dump();

    // The worker may create a file while the tree goes: repeat until it is gone.
    std::error_code ec;
    while (fs::exists(capture_root().at(log_root)))
        fs::remove_all(capture_root().at(log_root), ec);
    ASSERT_TRUE(wait_for([&] { return list_dir(dir).size() >= 2; }, 8000)) << log.dump();
    EXPECT_FALSE(log.has_containing("Failed to create new log file."));
    EXPECT_FALSE(log.has_containing("Failed to write"));
    EXPECT_TRUE(disable_and_settle(node));
    EXPECT_EQ(zombie_children(), 0);

    // The files made after the removal hold consecutive lines.
    std::string all;
    for (const auto &n : list_dir(dir))
        all += read_file(dir + "/" + n);
    ASSERT_FALSE(all.empty());
    int first = atoi(all.c_str() + 5);
    size_t lines = std::count(all.begin(), all.end(), '\n');
    char expect[64];
    for (size_t i = 0; i < lines; i++) {
        snprintf(expect, sizeof expect, "line %06d ......................\n",
                 first + static_cast<int>(i));
        ASSERT_EQ(all.compare(i * 35, 35, expect), 0) << "line " << i;
    }
}

}  // namespace
