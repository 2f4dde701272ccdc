// The pipe capture worker driven through its node record, as the dispatcher
// drives it: enable, the pending-change flag, the new-file request and the
// provider. Workers poll every 3 s, so each start serves several checks.
#include <android/log.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "capture/capture_pipe.h"
#include "tests/capture/capture_env.h"
#include "tests/support/log_capture.h"

namespace {

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

std::string repeat(const std::string &s, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; i++)
        out += s;
    return out;
}

// "<prefix>1\n<prefix>2\n..." from 1 to n.
std::string numbered(const char *prefix, int n) {
    std::string out;
    for (int i = 1; i <= n; i++)
        out += prefix + std::to_string(i) + "\n";
    return out;
}

// A provider printing "<prefix><i>" every 0.2 s for ever.
std::string counter(const char *prefix) {
    return std::string("i=0; while :; do i=$((i+1)); echo ") + prefix + "$i; sleep 0.2; done";
}

TEST(PipeRestart, ExitingProviderIsRestartedIntoTheSameFileAndReportedEveryTenthTime) {
    LogCapture log;
    std::string log_root = fresh_log_root("restart");
    // Each run also counts the descriptors it inherited that point into the
    // device root: the open log file must not be one of them.
    const std::string line = "run-0123456789-0123456789-0123456789-0123456789-0123456789\n";
    std::string provider = "ls -l /proc/self/fd/ | grep -c -F '" + capture_root().path() +
                           "'; printf '" + line.substr(0, line.size() - 1) + "\\n'";
    vorn_node *node = start_pipe_node("Restart", provider.c_str(), "Restart/restart", 0, true);
    std::string dir = capture_root().at(log_root + "Restart");
    const std::string read_none = "Read none from pipe " + provider + " 10 times, so close it! \n";

    std::vector<double> ends;  // when each run was reaped
    auto wait_ends = [&](size_t n) {
        return wait_for(
            [&] {
                while (ends.size() < log.count_containing("pstat = "))
                    ends.push_back(now_s());
                return ends.size() >= n;
            },
            static_cast<int>(n - ends.size()) * 3000 + 5000);
    };

    ASSERT_TRUE(wait_ends(1)) << log.dump();
    EXPECT_NE(locked(node, node->worker_thread), 0u);
    EXPECT_EQ(log.count(read_none), 1u);
    EXPECT_EQ(log.find("Read none").prio, ANDROID_LOG_ERROR);
    EXPECT_EQ(log.find("pstat = ").msg.rfind("pstat = 0x00000000, pid = ", 0), 0u);
    EXPECT_EQ(log.find("pstat = ").prio, ANDROID_LOG_ERROR);

    ASSERT_TRUE(wait_ends(10)) << log.dump();
    EXPECT_EQ(log.count(read_none), 1u);
    ASSERT_TRUE(wait_ends(11)) << log.dump();
    EXPECT_EQ(log.count(read_none), 2u);
    EXPECT_EQ(zombie_children(), 0);
    // Restarted by the idle poll: about 3 s apart, never sooner.
    for (size_t i = 1; i < ends.size(); i++)
        EXPECT_GE(ends[i] - ends[i - 1], 2.8) << "run " << i;

    // Every run appended to the one file, each complete and without leaked descriptors.
    auto names = list_dir(dir);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(has_one_suffix(names[0], "restart"));
    std::string content = read_file(dir + "/" + names[0]);
    size_t runs = content.size() / ("0\n" + line).size();
    EXPECT_GE(runs, 11u);
    EXPECT_EQ(content, repeat("0\n" + line, runs));

    EXPECT_TRUE(disable_and_settle(node));
}

TEST(PipeWorker, BinaryProviderThatNeverExitsIsStoppedWithSighupOnDisable) {
    LogCapture log;
    std::string log_root = fresh_log_root("binary");
    std::string data;
    unsigned seed = 7;
    for (int i = 0; i < 5000; i++)
        data += static_cast<char>(rand_r(&seed) & 0xff);
    data[10] = '\0';
    std::string data_file = capture_root().at("/binary-input");
    std::string pid_file = capture_root().at("/binary-pid");
    write_file(data_file, data);
    std::string provider = "echo $$ > " + pid_file + "; cat " + data_file + "; exec sleep 1000";
    vorn_node *node = start_pipe_node("Binary", provider.c_str(), "Binary/bin", 0, true);
    std::string dir = capture_root().at(log_root + "Binary");

    auto first_file = [&] {
        auto names = list_dir(dir);
        return names.empty() ? std::string() : read_file(dir + "/" + names[0]);
    };
    ASSERT_TRUE(wait_for([&] { return first_file().size() >= data.size(); }, 8000));
    EXPECT_TRUE(first_file() == data) << "binary output changed on its way";

    // Nothing to read: the worker sits in its 5 s select and still notices the disable.
    usleep(1500 * 1000);
    double disabled_at = now_s();
    set_enable(node, false);
    ASSERT_TRUE(wait_for([&] { return log.has_containing("pstat = "); }, 7000)) << log.dump();
    EXPECT_LE(now_s() - disabled_at, 5.5);
    std::string pid = read_file(pid_file);
    pid.pop_back();
    EXPECT_EQ(log.find("pstat = ").msg, "pstat = 0x00000001, pid = " + pid + "\n");  // SIGHUP
    usleep(200 * 1000);
    EXPECT_EQ(zombie_children(), 0);
    auto names = list_dir(dir);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(has_one_suffix(names[0], "bin")) << "closed, not rolled: " << names[0];

    // The next enable starts the command again, into a new file.
    set_enable(node, true);
    ASSERT_TRUE(wait_for([&] { return list_dir(dir).size() == 2; }, 5000));
    ASSERT_TRUE(wait_for([&] { return read_file(dir + "/" + list_dir(dir)[1]) == data; }, 3000));
    EXPECT_EQ(read_file(dir + "/" + names[0]), data);
    EXPECT_TRUE(disable_and_settle(node));
    EXPECT_EQ(zombie_children(), 0);
}

TEST(PipeWorker, NewFileRequestAndProviderChangeOpenNewFiles) {
    LogCapture log;
    std::string log_root = fresh_log_root("newfile");
    std::string a = counter("a");
    vorn_node *node = start_pipe_node("NewFile", a.c_str(), "NewFile/nf", 0, true);
    std::string dir = capture_root().at(log_root + "NewFile");
    auto file = [&](size_t i) {
        auto names = list_dir(dir);
        return i < names.size() ? read_file(dir + "/" + names[i]) : std::string();
    };

    ASSERT_TRUE(wait_for([&] { return file(0).find("a3\n") != std::string::npos; }, 8000));
    {
        vorn_node_guard g(node);
        node->new_file_request = 1;
    }
    // The worker waits 3 s before it opens the new file; the output waits in the pipe.
    ASSERT_TRUE(wait_for([&] { return locked(node, node->new_file_request) == 0; }, 6000));
    ASSERT_TRUE(wait_for([&] { return file(1).find("\n") != std::string::npos; }, 2000));
    usleep(1200 * 1000);  // so that the next file's name differs by its second
    auto names = list_dir(dir);
    ASSERT_EQ(names.size(), 2u);
    for (const auto &n : names)
        EXPECT_TRUE(has_one_suffix(n, "nf")) << n;

    // A new provider while running: the old command gets SIGHUP and its file
    // is closed with its single suffix; the new command writes to a new file.
    std::string b = counter("b");
    {
        vorn_node_guard g(node);
        node->log_provider = strdup(b.c_str());  // the old text stays valid: never freed
        node->pending_change = 1;
    }
    ASSERT_TRUE(wait_for([&] { return file(2).find("b2\n") != std::string::npos; }, 6000))
        << log.dump();
    EXPECT_EQ(log.find("pstat = ").msg.rfind("pstat = 0x00000001, pid = ", 0), 0u);
    EXPECT_TRUE(disable_and_settle(node));

    names = list_dir(dir);
    ASSERT_EQ(names.size(), 3u);
    for (const auto &n : names)
        EXPECT_TRUE(has_one_suffix(n, "nf")) << n;
    // Not a line lost or doubled across the new-file request.
    std::string old_lines = file(0) + file(1);
    int last = static_cast<int>(std::count(old_lines.begin(), old_lines.end(), '\n'));
    EXPECT_GT(last, 5);
    EXPECT_EQ(old_lines, numbered("a", last));
    EXPECT_EQ(file(2).rfind("b1\nb2\n", 0), 0u);
    EXPECT_EQ(file(2).find('a'), std::string::npos);
    EXPECT_EQ(zombie_children(), 0);
}

}  // namespace
