// Idle cost: vornd with every row of its register table configured and
// enabled, every provider silent (pipe providers that sleep, logd buffers of
// a fake logd that sends nothing), against an idle `sleep`. After the
// workers have settled, a window of --seconds: resident memory at its end,
// CPU seconds (schedstat) and wake-ups (context switches of every thread,
// from /proc/PID/task/*/status) within it. Several instances run side by side,
// each in its own root, one per run: idle processes do not disturb each
// other's counts.
//
//   bench_idle [--vornd PATH] [--seconds 60] [--runs 5]
//
// Prints one "run=" line per instance, then the wake-ups per second of every
// thread of the first daemon, so that the polls behind them can be named.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sim/fake_logd.h"

namespace fs = std::filesystem;

namespace {

// Every row of the register table, enabled; providers that never print. The
// fake logd serves one reader at a time (a new one replaces the last), so one
// node reads logd and the other two logd rows run silent pipe providers.
const char *kConf = R"(<vornconf version="1">
  <global enable="1" loglevel="0" time="-1" size="10485760" log_path="/sdcard/logs/"/>
  <ssr logname="ssr" enable="1" logtype="32"/>
  <GPU logname="GPU" enable="1" logtype="32"/>
  <DynamicDebug logname="DynamicDebug" enable="1"/>
  <Bluetooth logname="Bluetooth" enable="1"/>
  <AdbMain logname="AdbMain" enable="1" logtype="2" log_provider="main;system" log_filepath="Adb/main"/>
  <AdbRadio logname="AdbRadio" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="Adb/radio"/>
  <AdbEvents logname="AdbEvents" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="Adb/events"/>
  <Dmesg logname="Dmesg" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="Dmesg/dmesg"/>
  <RPM logname="RPM" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="RPM/rpm"/>
  <QDSS logname="QDSS" enable="1" logtype="0" log_provider="/dev/byte-cntr" log_filepath="QDSS/qdss" mask="/data/qdss.mask"/>
  <QXDM logname="QXDM" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="QXDM/qxdm"/>
  <WlanTcp logname="WlanTcp" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="Wlan/tcp"/>
  <DataTcp logname="DataTcp" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="Data/tcp"/>
  <DumpParser logname="DumpParser" enable="1" logtype="32"/>
  <Default logname="Default" enable="1" logtype="128" log_provider="exec sleep 100000" log_filepath="Default/default"/>
</vornconf>
)";

struct sample {
    double cpu_s = 0;                        // user + system of every thread
    long switches = 0;                       // voluntary and involuntary context switches
    long rss_kib = 0;                        // resident set at the end
    std::map<std::string, long> per_thread;  // switches by thread name (and id)
};

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

long status_field(const std::string &status, const char *key) {
    size_t at = status.find(key);
    return at == std::string::npos ? 0 : atol(status.c_str() + at + strlen(key));
}

sample measure(pid_t pid) {
    sample s;
    s.rss_kib = status_field(slurp("/proc/" + std::to_string(pid) + "/status"), "VmRSS:");
    std::error_code ec;
    for (const auto &e : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
        std::string dir = e.path().string();
        std::string status = slurp(dir + "/status");
        long sw = status_field(status, "voluntary_ctxt_switches:") +
                  status_field(status, "nonvoluntary_ctxt_switches:");
        s.switches += sw;
        std::string comm = slurp(dir + "/comm");
        if (!comm.empty() && comm.back() == '\n')
            comm.pop_back();
        s.per_thread[comm + " (" + e.path().filename().string() + ")"] = sw;
        // Nanoseconds on a CPU: the first field of schedstat.
        s.cpu_s += atof(slurp(dir + "/schedstat").c_str()) / 1e9;
    }
    return s;
}

pid_t spawn(const std::vector<std::string> &args) {
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);  // its providers go with it
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

}  // namespace

int main(int argc, char **argv) {
    std::string self = argv[0];
    std::string vornd = self.substr(0, self.rfind('/') + 1) + "vornd";
    int seconds = 60, runs = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--vornd") == 0)
            vornd = argv[i + 1];
        else if (strcmp(argv[i], "--seconds") == 0)
            seconds = atoi(argv[i + 1]);
        else if (strcmp(argv[i], "--runs") == 0)
            runs = atoi(argv[i + 1]);
    }
    char tmpl[] = "/tmp/vorn-bench-idle-XXXXXX";
    std::string dir = mkdtemp(tmpl);

    std::vector<std::unique_ptr<FakeLogd>> logds;
    std::vector<pid_t> daemons, sleeps;
    for (int r = 0; r < runs; r++) {
        std::string root = dir + "/root" + std::to_string(r);
        for (const char *d : {"/etc", "/data", "/dev/socket", "/sdcard/logs", "/system/bin"})
            fs::create_directories(root + d);
        fs::create_symlink("/bin/sh", root + "/system/bin/sh");
        std::ofstream(root + "/system/build.prop") << "ro.build.version.sdk=28\n";
        std::ofstream(root + "/etc/vorn-conf.xml") << kConf;
        // A trace device that never delivers (a FIFO nobody writes), trace
        // blocks that are off, and a mask with nothing to program.
        mkfifo((root + "/dev/byte-cntr").c_str(), 0600);
        std::ofstream(root + "/data/qdss.mask") << "# nothing to program\n";
        for (const char *f :
             {"coresight-stm/enable", "coresight-stm/hwevent_enable", "coresight-hwevent/enable"}) {
            std::string path = root + "/sys/bus/coresight/devices/" + f;
            fs::create_directories(fs::path(path).parent_path());
            std::ofstream(path) << "0\n";
        }
        logds.push_back(std::make_unique<FakeLogd>(root + "/dev/socket/logdr"));
        daemons.push_back(spawn({vornd, "--root", root}));
        sleeps.push_back(spawn({"sleep", std::to_string(seconds + 60)}));
    }
    // Every worker has made its first 3-second poll and started its source.
    std::this_thread::sleep_for(std::chrono::seconds(10));
    std::vector<sample> d0, s0;
    for (int r = 0; r < runs; r++) {
        d0.push_back(measure(daemons[r]));
        s0.push_back(measure(sleeps[r]));
    }
    auto t0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    double window = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    int status = 0;
    for (int r = 0; r < runs; r++) {
        sample d1 = measure(daemons[r]), s1 = measure(sleeps[r]);
        if (waitpid(daemons[r], nullptr, WNOHANG) != 0 || d1.rss_kib == 0) {
            fprintf(stderr, "bench_idle: vornd %d ended early\n", r + 1);
            status = 1;
        }
        printf(
            "run=%d vornd_rss_mib=%.2f sleep_rss_mib=%.2f vornd_cpu_pct=%.4f "
            "sleep_cpu_pct=%.4f vornd_cpu_s=%.4f sleep_cpu_s=%.4f vornd_wakeups_per_s=%.2f "
            "sleep_wakeups_per_s=%.2f\n",
            r + 1, d1.rss_kib / 1024.0, s1.rss_kib / 1024.0,
            100 * (d1.cpu_s - d0[r].cpu_s) / window, 100 * (s1.cpu_s - s0[r].cpu_s) / window,
            d1.cpu_s - d0[r].cpu_s, s1.cpu_s - s0[r].cpu_s, (d1.switches - d0[r].switches) / window,
            (s1.switches - s0[r].switches) / window);
        if (r == 0) {
            for (const auto &[name, sw] : d1.per_thread) {
                auto before = d0[r].per_thread.find(name);
                long prev = before == d0[r].per_thread.end() ? 0 : before->second;
                printf("thread %-28s %6.2f wake-ups/s\n", name.c_str(), (sw - prev) / window);
            }
        }
    }
    for (int r = 0; r < runs; r++) {
        kill(-daemons[r], SIGKILL);
        kill(sleeps[r], SIGKILL);
        waitpid(daemons[r], nullptr, 0);
        waitpid(sleeps[r], nullptr, 0);
    }
    logds.clear();
    fs::remove_all(dir);
    return status;
}
