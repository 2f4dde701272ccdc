// The pipe capture worker driven through its node record, as the dispatcher
// drives it. Workers poll every 3 s, so each start serves several checks.
#include <android/log.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/capture/capture_env.h"
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

}  // namespace
