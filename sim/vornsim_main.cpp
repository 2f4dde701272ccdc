// vornsim: the simulated phone. Builds a device root, brings its devices and
// services up and down, injects crashes, hangs, trace and log entries, and
// runs vornd on it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/device_root.h"
#include "sim/phone.h"
#include "sim/sim_server.h"
#include "sim/uevent_send.h"

namespace {

const char kUsage[] =
    "usage: vornsim COMMAND DIR [OPTIONS]\n"
    "  create DIR [--platform msm8974|msm8226|msm8916|msm8994|msm8996] [--cpus N]\n"
    "             [--ramdumps N]  make a device root for vornd --root DIR (N ramdump\n"
    "                             devices, 1 to 16, default 5)\n"
    "  up DIR                     mount the device file system, start the services\n"
    "  down DIR                   undo up (also after a crash, or when not up)\n"
    "  status DIR                 the running phone's state and what its services received\n"
    "  run DIR [--vornd PATH]     up, vornd --root DIR in the foreground, down at Ctrl-C\n"
    "  crash DIR SUBSYS [--size N] [--elf]   a ramdump (adsp, modem, pronto, venus, smem,\n"
    "                             then cdsp, slpi, spss, ... on a phone with more)\n"
    "  gpu-hang DIR [--same]      a new kgsl snapshot (--same: a notification, same timestamp)\n"
    "  trace DIR --rate MIBPS     QDSS trace at this rate (0 stops it)\n"
    "  overflow DIR               the next QDSS trace read fails with EIO\n"
    "  log DIR BUFFER PRIO TAG MESSAGE   an entry for logd and the logger device\n"
    "  uevent DIR remove|add      a diag_bridge uevent (root)\n"
    "  ddr-dump OUT [--image-size N] [--from-dmesg | --kmsg FILE]\n"
    "                             a DDR dump directory holding a kernel log\n";

int usage() {
    fputs(kUsage, stderr);
    return 2;
}

int fail(const std::string &msg) {
    fprintf(stderr, "vornsim: %s\n", msg.c_str());
    return 1;
}

bool to_number(const char *s, long long *v) {
    char *end = nullptr;
    errno = 0;
    *v = strtoll(s, &end, 0);
    return errno == 0 && end != s && *end == '\0';
}

int inject(const std::string &root, const std::string &line) {
    int rc = sim_inject(root, line);
    if (rc == -ENOENT || rc == -ENOTCONN)
        return fail(root + " is not up (vornsim up " + root + ")");
    if (rc == -EINVAL)
        return fail("rejected: " + line);
    if (rc < 0)
        return fail(line + ": " + strerror(-rc));
    return 0;
}

std::string self_dir() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return ".";
    std::string p(buf, static_cast<size_t>(n));
    return p.substr(0, p.rfind('/'));
}

int run(const std::string &root, std::string vornd) {
    if (vornd.empty())
        vornd = self_dir() + "/vornd";
    // Ctrl-C and SIGTERM are taken by sigwait below and passed on to the
    // daemon. Blocked from here on, one that comes while the phone comes up
    // or before the wait begins stays pending instead of being lost.
    sigset_t stop, old;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGCHLD);
    sigprocmask(SIG_BLOCK, &stop, &old);
    std::string err, note;
    if (sim_up(root, &err) != 0) {
        sigprocmask(SIG_SETMASK, &old, nullptr);
        return fail(err);
    }
    fprintf(stderr, "vornsim: %s is up; vornd --root %s (Ctrl-C stops both)\n", root.c_str(),
            root.c_str());
    pid_t pid = fork();
    if (pid == 0) {
        sigprocmask(SIG_SETMASK, &old, nullptr);
        std::string path = root + "/system/bin:" + (getenv("PATH") ? getenv("PATH") : "/bin");
        setenv("PATH", path.c_str(), 1);
        execl(vornd.c_str(), vornd.c_str(), "--root", root.c_str(), static_cast<char *>(nullptr));
        fprintf(stderr, "vornsim: %s: %s\n", vornd.c_str(), strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (pid > 0) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR))
            break;
        int sig = 0;
        if (sigwait(&stop, &sig) == 0 && sig != SIGCHLD)
            kill(pid, SIGTERM);
    }
    sim_down(root, &note);
    fprintf(stderr, "vornsim: %s\n", note.c_str());
    return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}

}  // namespace

int ddr_dump_main(const std::vector<std::string> &args);

int main(int argc, char **argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (argc < 3)
        return usage();
    std::string cmd = argv[1];
    std::string root = argv[2];
    std::vector<std::string> rest(argv + 3, argv + argc);
    if (cmd == "ddr-dump")
        return ddr_dump_main(std::vector<std::string>(argv + 2, argv + argc));
    if (cmd == "create") {
        DeviceRootOptions opts;
        for (size_t i = 0; i < rest.size(); i++) {
            long long v = 0;
            if (rest[i] == "--platform" && i + 1 < rest.size() && known_platform(rest[i + 1]))
                opts.platform = rest[++i];
            else if (rest[i] == "--cpus" && i + 1 < rest.size() &&
                     to_number(rest[i + 1].c_str(), &v) && v >= 1 && v <= 8) {
                opts.cpus = static_cast<int>(v);
                i++;
            } else if (rest[i] == "--ramdumps" && i + 1 < rest.size() &&
                       to_number(rest[i + 1].c_str(), &v) && v >= 1 &&
                       v <= static_cast<long long>(kSimSubsystems.size())) {
                opts.ramdumps = static_cast<int>(v);
                i++;
            } else
                return usage();
        }
        std::string err;
        if (!create_device_root(root, opts, &err))
            return fail(err);
        printf("vornsim: device root %s (%s, %d cpus, %d ramdump devices)\n", root.c_str(),
               opts.platform.c_str(), opts.cpus, opts.ramdumps);
        return 0;
    }
    if (cmd == "up" && rest.empty()) {
        std::string err;
        if (sim_up(root, &err) != 0)
            return fail(err);
        printf("vornsim: %s is up\n", root.c_str());
        return 0;
    }
    if (cmd == "down" && rest.empty()) {
        std::string note;
        int rc = sim_down(root, &note);
        printf("vornsim: %s\n", note.c_str());
        return rc;
    }
    if (cmd == "status" && rest.empty()) {
        FILE *f = fopen(sim_control_path(root).c_str(), "r");
        if (f == nullptr)
            return fail(root + " is not up");
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0)
            fwrite(buf, 1, n, stdout);
        fclose(f);
        return 0;
    }
    if (cmd == "run") {
        std::string vornd;
        if (rest.size() == 2 && rest[0] == "--vornd")
            vornd = rest[1];
        else if (!rest.empty())
            return usage();
        return run(root, vornd);
    }
    if (cmd == "crash" && !rest.empty()) {
        long long size = 1 << 20;
        bool elf = false;
        for (size_t i = 1; i < rest.size(); i++) {
            if (rest[i] == "--elf")
                elf = true;
            else if (rest[i] == "--size" && i + 1 < rest.size() &&
                     to_number(rest[i + 1].c_str(), &size) && size > 0)
                i++;
            else
                return usage();
        }
        return inject(root, "crash " + rest[0] + " " + std::to_string(size) + (elf ? " 1" : " 0"));
    }
    if (cmd == "gpu-hang" && rest.empty())
        return inject(root, "gpu-hang");
    if (cmd == "gpu-hang" && rest.size() == 1 && rest[0] == "--same")
        return inject(root, "gpu-hang same");
    if (cmd == "overflow" && rest.empty())
        return inject(root, "overflow");
    if (cmd == "trace" && rest.size() == 2 && rest[0] == "--rate") {
        char *end = nullptr;
        double mib = strtod(rest[1].c_str(), &end);
        if (end == rest[1].c_str() || *end != '\0' || mib < 0 || mib > 4096)
            return usage();
        return inject(root, "trace " + std::to_string(static_cast<long long>(mib * 1048576)));
    }
    if (cmd == "log" && rest.size() == 4) {
        static const char kLetters[] = "??VDIWEFS";
        std::string prio = rest[1];
        long long p = -1;
        if (prio.size() == 1 && strchr(kLetters + 2, prio[0]) != nullptr)
            p = strchr(kLetters + 2, prio[0]) - kLetters;
        else if (!to_number(prio.c_str(), &p) || p < 0 || p > 8)
            return usage();
        if (rest[2].find(' ') != std::string::npos || rest[2].empty())
            return usage();
        return inject(root,
                      "log " + rest[0] + " " + std::to_string(p) + " " + rest[2] + " " + rest[3]);
    }
    if (cmd == "uevent" && rest.size() == 1 && (rest[0] == "add" || rest[0] == "remove")) {
        int rc = send_diag_bridge_uevent(rest[0]);
        return rc < 0 ? fail(std::string("uevent: ") + strerror(-rc)) : 0;
    }
    return usage();
}
