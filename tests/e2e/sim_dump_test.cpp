// On the phone's default configuration, a DDR dump made by vornsim from this
// host's own kernel log goes through the DumpParser node; the kmsg.txt it
// writes holds the messages and times that dmesg shows.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/sim_fixture.h"
#include "tests/support/text.h"

namespace {

using Line = std::pair<unsigned long long, std::string>;  // microseconds, text

// "<6>[   12.345678] text" lines of dmesg -r.
std::vector<Line> dmesg_lines(const std::string &out) {
    std::vector<Line> lines;
    for (const std::string &l : lines_of(out)) {
        unsigned long long sec = 0, usec = 0;
        size_t close = l.find("] ");
        if (close == std::string::npos || sscanf(l.c_str(), "<%*d>[ %llu.%llu]", &sec, &usec) != 2)
            continue;
        lines.push_back({sec * 1000000 + usec, l.substr(close + 2)});
    }
    return lines;
}

// "0000000000bc614e: text" lines of kmsg.txt (nanoseconds).
std::vector<Line> kmsg_lines(const std::string &out) {
    std::vector<Line> lines;
    for (const std::string &l : lines_of(out)) {
        if (l.size() < 18 || l[16] != ':')
            continue;
        lines.push_back({std::stoull(l.substr(0, 16), nullptr, 16) / 1000, l.substr(18)});
    }
    return lines;
}

TEST(SimDumpTest, HostKernelLogComesBackFromADdrDump) {
    int probe = open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (probe < 0)
        GTEST_SKIP() << "this host's kernel log cannot be read here";
    close(probe);
    ProcessResult dmesg = run_process({"/bin/sh", "-c", "dmesg -r"}, 10000);
    if (dmesg.exit_status != 0)
        GTEST_SKIP() << "dmesg fails here: " << dmesg.err;

    // The phone's default configuration: every row binds.
    SimDaemonFixture d;
    ASSERT_TRUE(d.start()) << d.log();
    ProcessResult status = d.vornctl({"status"});
    ASSERT_EQ(status.exit_status, 0) << status.err;
    for (const char *row :
         {"ssr", "GPU", "DynamicDebug", "Bluetooth", "AdbMain", "AdbRadio", "AdbEvents", "Dmesg",
          "RPM", "QDSS", "QXDM", "WlanTcp", "DataTcp", "DumpParser", "Default"}) {
        size_t at = status.out.find(std::string(" ") + row + " ");
        ASSERT_NE(at, std::string::npos) << row << "\n" << status.out;
        EXPECT_NE(status.out[status.out.rfind('\n', at) + 1], '-') << row << "\n" << status.out;
    }

    ProcessResult made = d.vornsim({"ddr-dump", d.at("/data/dumps/host"), "--from-dmesg"});
    ASSERT_EQ(made.exit_status, 0) << made.err;

    ProcessResult en = d.vornctl({"enable", "DumpParser", "--mask", "/data/dumps/host"});
    ASSERT_EQ(en.exit_status, 0) << en.err;
    std::string notice = d.wait_for_broadcast("DumpParser", 15000);
    ASSERT_FALSE(notice.empty()) << d.log();
    EXPECT_NE(notice.find("--ei result 0"), std::string::npos) << notice;
    EXPECT_NE(notice.find("/data/dumps/host"), std::string::npos) << notice;

    // Every message dmesg showed before the dump, at its time and in order;
    // the kernel may have logged a few more since.
    std::vector<Line> want = dmesg_lines(dmesg.out);
    std::vector<Line> got = kmsg_lines(d.read("/data/dumps/host/kmsg.txt"));
    ASSERT_FALSE(want.empty());
    size_t at = 0, matched = 0, compared = 0;
    for (const Line &w : want) {
        if (w.second.find('\\') != std::string::npos)
            continue;  // escaped bytes print differently in the two
        compared++;
        while (at < got.size() && got[at] != w)
            at++;
        if (at == got.size())
            break;
        matched++;
        at++;
    }
    EXPECT_GT(compared, 0u);
    EXPECT_EQ(matched, compared) << "first missing after " << matched << " of " << compared;
    EXPECT_LE(got.size(), want.size() + 50);
}

}  // namespace
