// Exec capture: templating, the process scan, stopping, and a worker that
// starts, stops and restarts a provider whose children report their own
// arguments.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android/log.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "capture/exec_capture.h"
#include "platform/log.h"
#include "tests/capture/capture_env.h"
#include "tests/capture/capture_workers.h"

namespace {

TEST(ExecTemplateTest, EachPlaceholderIsReplacedOnceInItsOrder) {
    struct {
        const char *tmpl;
        const char *mask_link;
        const char *want;
    } cases[] = {
        {"tcpdump -i any", "L", "tcpdump -i any"},
        {"prog -o #path -m #mask -l #mask_link", "L", "prog -o /P -m M -l L"},
        {"cp #path #path", nullptr, "cp /P #path"},
        {"prog #mask #mask", "L", "prog M #mask"},
        // "#mask" is replaced first, so it takes the start of "#mask_link".
        {"prog #mask_link", "L", "prog M_link"},
        {"prog #mask_link", nullptr, "prog M_link"},
        {"prog #mask_link #mask", "L", "prog M_link #mask"},
        {"prog #mask #mask_link", nullptr, "prog M #mask_link"},
        {"#path#mask#mask_link", "L", "/PML"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.tmpl);
        char *cmd = exec_build_command(c.tmpl, "/P", "M", c.mask_link);
        ASSERT_NE(cmd, nullptr);
        EXPECT_STREQ(cmd, c.want);
        free(cmd);
    }
}

TEST(ExecProcessTest, ScanFindsTheChildrenOfOneParentOnly) {
    const std::string proc = "/fakeproc";
    auto status = [&](const std::string &entry, int ppid) {
        capture_root().write(proc + "/" + entry + "/status",
                             "Name:\tx\nState:\tS\nPid:\t" + entry + "\nPPid:\t" +
                                 std::to_string(ppid) + "\nTracerPid:\t0\n");
    };
    status("100", 7);
    status("101", 8);
    status("102", 7);
    status("self", 7);                    // not a pid
    capture_root().mkdir(proc + "/103");  // gone before its status was read
    pid_t kids[VORN_EXEC_CHILDREN + 1];
    std::fill(std::begin(kids), std::end(kids), -5);
    ASSERT_EQ(exec_scan_children(capture_root().at(proc).c_str(), 7, kids), 2);
    std::vector<pid_t> found(kids, kids + 2);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<pid_t>{100, 102}));
    EXPECT_EQ(kids[2], 0);

    // More children than places: the list stays within its 31 and its end.
    for (int i = 0; i < 40; i++)
        status(std::to_string(200 + i), 9);
    EXPECT_EQ(exec_scan_children(capture_root().at(proc).c_str(), 9, kids), VORN_EXEC_CHILDREN);
    EXPECT_EQ(kids[VORN_EXEC_CHILDREN], 0);

    EXPECT_EQ(exec_scan_children(capture_root().at("/no/proc").c_str(), 7, kids), -1);
}

TEST(ExecProcessTest, StopProcessSignalsAndReapsItsChild) {
    int sync[2];
    ASSERT_EQ(pipe(sync), 0);
    pid_t pid = fork();
    if (pid == 0) {
        // Reports each signal on the pipe; leaves once it has seen both.
        static int out = sync[1];
        static volatile sig_atomic_t seen = 0;
        struct sigaction sa {};
        sa.sa_handler = [](int sig) {
            char c = sig == SIGUSR1 ? 'U' : 'C';
            (void)!write(out, &c, 1);
            seen = seen | (sig == SIGUSR1 ? 1 : 2);
            if (seen == 3)
                _exit(3);
        };
        sigaction(SIGUSR1, &sa, nullptr);
        sigaction(SIGCONT, &sa, nullptr);
        (void)!write(out, "R", 1);
        for (;;)
            pause();
    }
    close(sync[1]);
    char c = 0;
    ASSERT_EQ(read(sync[0], &c, 1), 1);
    ASSERT_EQ(c, 'R');
    pid_t slot = pid;
    EXPECT_EQ(stop_process(&slot), 0);
    EXPECT_EQ(slot, -1);
    // Pending together, the two may be handled in either order.
    std::string got;
    char buf[4];
    for (ssize_t n; (n = read(sync[0], buf, sizeof buf)) > 0;)
        got.append(buf, static_cast<size_t>(n));
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, "CU");
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);  // already reaped
    close(sync[0]);

    for (pid_t none : {0, -1, -100}) {
        slot = none;
        EXPECT_EQ(stop_process(&slot), -1);
        EXPECT_EQ(slot, none);
    }
}

// Records the daemon's messages; when the worker announces its shell's pid
// it holds the worker until the provider's children have started, so that
// the one scan after the fork finds them.
class GatedLog {
  public:
    GatedLog() {
        instance_ = this;
        __android_log_set_logger(&GatedLog::log);
    }
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> g(mutex_);
        return lines_;
    }
    size_t count(const std::string &text) {
        auto l = lines();
        return static_cast<size_t>(std::count(l.begin(), l.end(), text));
    }
    std::function<void(pid_t)> on_pid;

  private:
    static void log(const __android_logger_data *, const char *msg) {
        GatedLog *self = instance_;
        {
            std::lock_guard<std::mutex> g(self->mutex_);
            self->lines_.emplace_back(msg);
        }
        if (strncmp(msg, "pid is ", 7) == 0 && self->on_pid)
            self->on_pid(atoi(msg + 7));
    }
    static inline GatedLog *instance_ = nullptr;
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

struct ProbeLine {
    pid_t pid;
    pid_t parent;
    std::string args;
};

std::vector<ProbeLine> probe_lines(const std::string &file) {
    std::vector<ProbeLine> out;
    std::istringstream in(read_file(file));
    std::string line;
    while (std::getline(in, line)) {
        pid_t pid = 0, parent = 0;
        int used = 0;
        sscanf(line.c_str(), "%d %d %n", &pid, &parent, &used);
        out.push_back({pid, parent, line.substr(static_cast<size_t>(used))});
    }
    return out;
}

bool gone(pid_t pid) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat[paren + 2] == 'Z');
}

TEST(ExecCaptureTest, StartsTheTemplatedCommandStopsItsChildrenAndRestartsOnChange) {
    TempRoot &root = capture_root();
    root.mkdir("/system/bin");
    symlink("/bin/sh", root.at("/system/bin/sh").c_str());
    symlink("/proc", root.at("/proc").c_str());
    // The provider's children write their pid and arguments, then sleep.
    const std::string out = root.at("/probe.out");
    root.write("/bin/vorn_exec_probe",
               "#!/bin/sh\necho \"$$ $PPID $*\" >> " + out + "\nexec sleep 1000\n");
    chmod(root.at("/bin/vorn_exec_probe").c_str(), 0755);
    setenv("PATH", (root.at("/bin") + ":" + getenv("PATH")).c_str(), 1);

    // Lives for ever: the worker logs through it after the test.
    static GatedLog &log = *new GatedLog;
    log.on_pid = [out](pid_t shell) {
        wait_for(
            [&] {
                auto lines = probe_lines(out);
                return std::count_if(lines.begin(), lines.end(),
                                     [&](const ProbeLine &l) { return l.parent == shell; }) == 2;
            },
            5000);
    };
    // Whatever happens, nothing the test started outlives it.
    struct Reaper {
        std::string out;
        ~Reaper() {
            for (const auto &l : probe_lines(out))
                kill(l.pid, SIGKILL);
            for (const auto &l : log.lines()) {
                if (l.rfind("pid is ", 0) == 0)
                    kill(atoi(l.c_str() + 7), SIGKILL);
            }
            __android_log_set_logger(vorn_log_stderr_logger);
        }
    } reaper{out};

    std::string log_root = fresh_log_root("exec", 0);
    vorn_node *node =
        make_node("QXDM", 0x40, "vorn_exec_probe #path #mask #mask_link & vorn_exec_probe 2 & wait",
                  "Diag/diag", 0);
    node->mask_link = strdup("/sdcard/link.cfg");
    set_enable(node, true, "/sdcard/mask.cfg");
    start_detached_thread(
        [](void *n) -> void * {
            capture_exec(static_cast<vorn_node *>(n));
            return nullptr;
        },
        node, "vornd_test");
    auto args_of = [&](size_t from) {
        auto lines = probe_lines(out);
        std::vector<std::string> args;
        for (size_t i = from; i < lines.size(); i++)
            args.push_back(lines[i].args);
        std::sort(args.begin(), args.end());
        return args;
    };
    auto dump = [&] {
        std::string all;
        for (const auto &l : log.lines())
            all += l + "\n";
        return all;
    };

    // The first cycle starts the command at once.
    ASSERT_TRUE(wait_for([&] { return probe_lines(out).size() == 2; }, 3000)) << dump();
    EXPECT_EQ(args_of(0), (std::vector<std::string>{root.at(log_root) + "/Diag/diag " +
                                                        root.at("/sdcard/mask.cfg") + " " +
                                                        root.at("/sdcard/link.cfg"),
                                                    "2"}));
    auto first = probe_lines(out);

    // Disabled: each child, then the shell, gets SIGUSR1 and SIGCONT.
    set_enable(node, false);
    ASSERT_TRUE(wait_for([&] { return gone(first[0].pid) && gone(first[1].pid); }, 5000)) << dump();
    EXPECT_EQ(log.count("disable " + std::to_string(first[0].pid)), 1u);
    EXPECT_EQ(log.count("disable " + std::to_string(first[1].pid)), 1u);

    // Enabled with a new mask, then changed while running: a restart.
    set_enable(node, true, "0x3");
    ASSERT_TRUE(wait_for([&] { return probe_lines(out).size() == 4; }, 5000)) << dump();
    EXPECT_EQ(args_of(2)[0], root.at(log_root) + "/Diag/diag 0x3 " + root.at("/sdcard/link.cfg"));
    auto second = probe_lines(out);
    set_enable(node, true, "0x4");
    ASSERT_TRUE(wait_for([&] { return probe_lines(out).size() == 6; }, 5000)) << dump();
    EXPECT_TRUE(wait_for([&] { return gone(second[2].pid) && gone(second[3].pid); }, 2000));
    EXPECT_EQ(args_of(4)[0], root.at(log_root) + "/Diag/diag 0x4 " + root.at("/sdcard/link.cfg"));
    auto third = probe_lines(out);

    // A command that keeps running is left alone while nothing changes.
    sleep(4);
    EXPECT_FALSE(gone(third[4].pid));
    EXPECT_EQ(probe_lines(out).size(), 6u);

    set_enable(node, false);
    EXPECT_TRUE(wait_for([&] { return gone(third[4].pid) && gone(third[5].pid); }, 5000));
    int pids = 0;
    for (const auto &l : log.lines())
        pids += l.rfind("pid is ", 0) == 0;
    EXPECT_EQ(pids, 3);
}

}  // namespace
