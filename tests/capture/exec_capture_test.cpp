// Exec capture: templating, the process scan, and a worker that starts,
// stops and restarts a provider whose children report their own arguments.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "capture/exec_capture.h"
#include "tests/capture/capture_env.h"
#include "tests/support/log_capture.h"
#include "tests/support/text.h"

namespace {

TEST(ExecTemplateTest, EachPlaceholderIsReplacedOnceInItsOrder) {
    struct {
        const char *tmpl, *mask_link, *want;
    } cases[] = {
        {"tcpdump -i any", "L", "tcpdump -i any"},
        {"prog -o #path -m #mask -l #mask_link", "L", "prog -o /P -m M -l L"},
        {"cp #path #path", nullptr, "cp /P #path"},
        // "#mask" is replaced first, so it takes the start of "#mask_link".
        {"prog #mask_link", "L", "prog M_link"},
        {"prog #mask_link", nullptr, "prog M_link"},
        {"prog #mask_link #mask", "L", "prog M_link #mask"},
        {"prog #mask #mask_link", nullptr, "prog M #mask_link"},
    };
    for (const auto &c : cases) {
        char *cmd = exec_build_command(c.tmpl, "/P", "M", c.mask_link);
        EXPECT_STREQ(cmd, c.want) << c.tmpl;
        free(cmd);
    }
}

TEST(ExecProcessTest, ScanFindsTheChildrenOfOneParentWithinItsPlaces) {
    auto status = [](const std::string &entry, int ppid) {
        capture_root().write(
            "/fakeproc/" + entry + "/status",
            "Name:\tx\nPid:\t" + entry + "\nPPid:\t" + std::to_string(ppid) + "\n");
    };
    status("100", 7);
    status("101", 8);
    status("102", 7);
    status("self", 7);                      // not a pid
    capture_root().mkdir("/fakeproc/103");  // gone before its status was read
    for (int i = 0; i < 40; i++)
        status(std::to_string(200 + i), 9);
    const std::string proc = capture_root().at("/fakeproc");
    pid_t kids[VORN_EXEC_CHILDREN + 1];
    ASSERT_EQ(exec_scan_children(proc.c_str(), 7, kids), 2);
    EXPECT_EQ(std::min(kids[0], kids[1]) + std::max(kids[0], kids[1]) * 1000, 100 + 102 * 1000);
    EXPECT_EQ(kids[2], 0);
    EXPECT_EQ(exec_scan_children(proc.c_str(), 9, kids), VORN_EXEC_CHILDREN);
    EXPECT_EQ(kids[VORN_EXEC_CHILDREN], 0);
    EXPECT_EQ(exec_scan_children(capture_root().at("/no/proc").c_str(), 7, kids), -1);
}

// One line per started child of the provider: "<pid> <parent pid> <args>".
struct Probe {
    pid_t pid, parent;
    std::string args;
};

std::vector<Probe> probes(const std::string &file) {
    std::vector<Probe> out;
    for (const std::string &line : lines_of(read_file(file))) {
        Probe p{};
        int used = 0;
        sscanf(line.c_str(), "%d %d %n", &p.pid, &p.parent, &used);
        p.args = line.substr(static_cast<size_t>(used));
        out.push_back(p);
    }
    return out;
}

TEST(ExecCaptureTest, StartsTheTemplatedCommandStopsItsChildrenAndRestartsOnChange) {
    TempRoot &root = capture_root();
    symlink("/proc", root.at("/proc").c_str());
    const std::string out = root.at("/probe.out");
    root.write("/bin/vorn_exec_probe",
               "#!/bin/sh\necho \"$$ $PPID $*\" >> " + out + "\nexec sleep 1000\n");
    chmod(root.at("/bin/vorn_exec_probe").c_str(), 0755);
    setenv("PATH", (root.at("/bin") + ":" + getenv("PATH")).c_str(), 1);

    // When the worker announces its shell's pid, it is held until two children
    // of that shell have reported, so that the one scan after the fork finds them.
    LogCapture log;
    log.on_message([out](const std::string &msg) {
        if (msg.rfind("pid is ", 0) != 0)
            return;
        pid_t shell = atoi(msg.c_str() + 7);
        wait_for(
            [&] {
                auto p = probes(out);
                return std::count_if(p.begin(), p.end(),
                                     [&](const Probe &x) { return x.parent == shell; }) == 2;
            },
            5000);
    });
    struct Reaper {  // nothing the test started outlives it
        std::string out;
        ~Reaper() {
            for (const auto &p : probes(out))
                kill(p.pid, SIGKILL), kill(p.parent, SIGKILL);
        }
    } reaper{out};

    std::string log_root = device_log_root("exec");
    vorn_node *node =
        make_node("QXDM", 0x40, "vorn_exec_probe #path #mask #mask_link & vorn_exec_probe 2 & wait",
                  "Diag/diag");
    node->mask_link = strdup("/sdcard/link.cfg");
    set_enable(node, true, "/sdcard/mask.cfg");
    start_variant<capture_exec>(node);
    // Arguments of the children started since the first'th line, sorted.
    auto args_from = [&](size_t first) {
        std::vector<std::string> args;
        for (const auto &p : probes(out))
            args.push_back(p.args);
        args.erase(args.begin(), args.begin() + static_cast<long>(first));
        std::sort(args.begin(), args.end());
        return args;
    };
    const std::string path = root.at(log_root) + "/Diag/diag ";
    const std::string link = " " + root.at("/sdcard/link.cfg");

    // The first cycle starts the command at once, with host paths filled in.
    ASSERT_TRUE(wait_for([&] { return probes(out).size() == 2; }, 3000));
    EXPECT_EQ(args_from(0),
              (std::vector<std::string>{path + root.at("/sdcard/mask.cfg") + link, "2"}));
    auto first = probes(out);

    // Disabled: each child, then the shell, gets SIGUSR1 and SIGCONT.
    set_enable(node, false);
    ASSERT_TRUE(
        wait_for([&] { return process_gone(first[0].pid) && process_gone(first[1].pid); }, 5000));
    EXPECT_EQ(log.count("disable " + std::to_string(first[0].pid)), 1u);
    EXPECT_EQ(log.count("disable " + std::to_string(first[1].pid)), 1u);

    // Enabled with a new mask, then changed while running: a restart.
    set_enable(node, true, "0x3");
    ASSERT_TRUE(wait_for([&] { return probes(out).size() == 4; }, 5000));
    EXPECT_EQ(args_from(2)[0], path + "0x3" + link);
    auto second = probes(out);
    set_enable(node, true, "0x4");
    ASSERT_TRUE(wait_for([&] { return probes(out).size() == 6; }, 5000));
    EXPECT_TRUE(
        wait_for([&] { return process_gone(second[2].pid) && process_gone(second[3].pid); }, 2000));
    EXPECT_EQ(args_from(4)[0], path + "0x4" + link);

    // Without a change, a running command is left alone.
    sleep(4);
    EXPECT_EQ(probes(out).size(), 6u);
    EXPECT_FALSE(process_gone(probes(out)[4].pid));
    set_enable(node, false);
    EXPECT_TRUE(wait_for([&] { return process_gone(probes(out)[4].pid); }, 5000));
    EXPECT_EQ(log.count_containing("pid is "), 3u);
}

}  // namespace
