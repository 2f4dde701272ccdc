// The host logger's threadtime lines: layout, cutting, the ids after a fork,
// several lines in one message, and lines kept in a batch.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "tests/support/text.h"

namespace {

// The line as the plain snprintf layout gives it for the stamp of line.
std::string expected(const std::string &line, int pid, int tid, char prio, const char *tag,
                     const char *msg) {
    char buf[512];
    snprintf(buf, sizeof buf, "%.18s %5d %5d %c %-8s: %s\n", line.c_str(), pid, tid, prio, tag,
             msg);
    return buf;
}

std::string format(int prio, const char *tag, const char *msg, int len = 512) {
    char out[512];
    int n = vorn_log_format_line(out, len, prio, tag, msg);
    return std::string(out, static_cast<size_t>(n));
}

TEST(LogFormat, ThreadtimeLayoutWithTheCallersIds) {
    int pid = getpid(), tid = static_cast<int>(syscall(SYS_gettid));
    time_t before = time(nullptr);
    std::string line = format(ANDROID_LOG_DEBUG, "vornd", "Send 256 bytes out");
    time_t after = time(nullptr);
    EXPECT_EQ(line, expected(line, pid, tid, 'D', "vornd", "Send 256 bytes out"));
    // The stamp is the local time of the call.
    struct tm tm;
    char stamp[32];
    bool match = false;
    for (time_t t = before; t <= after; t++) {
        localtime_r(&t, &tm);
        strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S.", &tm);
        match |= line.compare(0, 15, stamp) == 0;
    }
    EXPECT_TRUE(match) << line;
    EXPECT_TRUE(isdigit(line[15]) && isdigit(line[16]) && isdigit(line[17])) << line;

    // Each line carries its own stamp: a later call may fall in a later millisecond.
    std::string err = format(ANDROID_LOG_ERROR, "DumpParser", "x");
    EXPECT_EQ(err, expected(err, pid, tid, 'E', "DumpParser", "x"));
    // A line cut to the buffer still ends in a newline.
    std::string cut = format(ANDROID_LOG_INFO, "vornd", "0123456789", 40);
    EXPECT_EQ(cut.size(), 39u);
    EXPECT_EQ(cut.back(), '\n');
    EXPECT_EQ(cut.compare(0, 38, expected(cut, pid, tid, 'I', "vornd", "0123456789"), 0, 38), 0);
}

TEST(LogFormat, OtherThreadsAndForkedChildrenPrintTheirOwnIds) {
    format(ANDROID_LOG_DEBUG, "vornd", "warm");  // the parent's ids are known now
    pid_t child = fork();
    if (child == 0) {
        std::string line = format(ANDROID_LOG_DEBUG, "vornd", "child");
        std::string want = expected(line, getpid(), getpid(), 'D', "vornd", "child");
        _exit(line == want ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    int tid = 0;
    std::string line;
    std::thread([&] {
        tid = static_cast<int>(syscall(SYS_gettid));
        line = format(ANDROID_LOG_WARN, "vornd", "thread");
    }).join();
    EXPECT_EQ(line, expected(line, getpid(), tid, 'W', "vornd", "thread"));
}

// What a pipe standing in for stderr holds now (nothing blocks).
class StderrPipe {
  public:
    StderrPipe() {
        EXPECT_EQ(pipe2(fds_, O_NONBLOCK), 0);
        fcntl(fds_[1], F_SETPIPE_SZ, 1 << 20);
        saved_ = dup(STDERR_FILENO);
        dup2(fds_[1], STDERR_FILENO);
    }
    ~StderrPipe() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        close(fds_[0]);
        close(fds_[1]);
    }
    std::string take() {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = read(fds_[0], buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

  private:
    int fds_[2];
    int saved_;
};

// The text after the header of each line.
std::vector<std::string> texts_of(const std::string &out) {
    std::vector<std::string> texts;
    for (size_t at = 0, nl; (nl = out.find('\n', at)) != std::string::npos; at = nl + 1) {
        size_t colon = out.find(" : ", at);
        texts.push_back(colon < nl ? out.substr(colon + 3, nl - colon - 3) : "?");
    }
    return texts;
}

TEST(LogFormat, StderrLinesEachWithItsHeaderAndBatchesWrittenAtTheirEnd) {
    StderrPipe err;
    __android_logger_data data{sizeof data, LOG_ID_SYSTEM, ANDROID_LOG_DEBUG, "vornd", nullptr, 0};
    std::string big(4050, 'b');  // a line that fits only an empty batch
    {
        vorn_log_batch batch;
        vorn_log_stderr_logger(&data, "one");
        vorn_log_stderr_logger(&data, "two\nthree");
        std::thread([&] { vorn_log_stderr_logger(&data, "other thread"); }).join();
        EXPECT_EQ(texts_of(err.take()), std::vector<std::string>{"other thread"});
        // Past the batch's room: what was kept goes first, then this line.
        vorn_log_stderr_logger(&data, big.c_str());
        EXPECT_EQ(texts_of(err.take()), (std::vector<std::string>{"one", "two", "three", big}));
        vorn_log_stderr_logger(&data, "four");
        EXPECT_EQ(err.take(), "");
    }
    EXPECT_EQ(texts_of(err.take()), std::vector<std::string>{"four"});
    {
        vorn_log_batch outer;
        vorn_log_stderr_logger(&data, "outer");
        {
            vorn_log_batch inner;
            vorn_log_stderr_logger(&data, "inner");
        }
        vorn_log_stderr_logger(&data, "outer again");
    }
    EXPECT_EQ(texts_of(err.take()), (std::vector<std::string>{"outer", "inner", "outer again"}));

    // Out of a batch: each line of a message with its header, blank lines
    // dropped, an empty message kept as one line.
    vorn_log_stderr_logger(&data, "first\nsecond\n\nthird\n");
    vorn_log_stderr_logger(&data, "");
    std::string out = err.take();
    EXPECT_EQ(texts_of(out), (std::vector<std::string>{"first", "second", "third", ""}));
    for (const std::string &line : lines_of(out))
        EXPECT_NE(line.find(" D vornd   : "), std::string::npos) << line;
}

}  // namespace
