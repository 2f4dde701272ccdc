#include "sim/sim_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/io.h"
#include "sim/phone.h"

namespace {

std::string pid_path(const std::string &root) {
    return root + "/data/sim/vornsim.pid";
}
std::string log_path(const std::string &root) {
    return root + "/data/sim/vornsim.log";
}

// The mount point's path as /proc/self/mountinfo shows it (no symlinks).
std::string canonical(const std::string &dir) {
    char buf[PATH_MAX];
    return realpath(dir.c_str(), buf) != nullptr ? std::string(buf) : dir;
}

// The process's start time in clock ticks since boot (0 when unknown).
unsigned long long start_time(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    size_t paren = stat.rfind(')');
    if (paren == std::string::npos)
        return 0;
    std::istringstream f(stat.substr(paren + 2));
    std::string field;
    // Fields after the name start at state (3); the start time is field 22.
    for (int i = 3; i < 22 && f >> field; i++) {
    }
    unsigned long long t = 0;
    f >> t;
    return t;
}

void serve(const std::string &root, int ready_fd) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);  // threads started below inherit it
    signal(SIGPIPE, SIG_IGN);
    SimPhone phone(root);
    std::string err;
    if (!phone.up(&err)) {
        fprintf(stderr, "vornsim: %s\n", err.c_str());
        char no = 1;
        (void)!write(ready_fd, &no, 1);
        _exit(1);
    }
    std::ofstream(pid_path(root)) << getpid() << " " << start_time(getpid()) << "\n";
    fprintf(stderr, "vornsim: %s is up\n", root.c_str());
    char yes = 0;
    (void)!write(ready_fd, &yes, 1);
    close(ready_fd);
    int sig = 0;
    sigwait(&set, &sig);
    fprintf(stderr, "vornsim: signal %d, going down\n", sig);
    phone.down();
    unlink(pid_path(root).c_str());
    fflush(stderr);
    // Threads of a mount that a client still holds may still run: leave
    // without waiting for them.
    _exit(0);
}

}  // namespace

bool sim_process_running(pid_t pid) {
    if (waitpid(pid, nullptr, WNOHANG) == pid || kill(pid, 0) != 0)
        return false;
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

bool is_mount_point(const std::string &dir) {
    std::string want = canonical(dir);
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream f(line);
        std::string id, parent, dev, rootf, mnt;
        f >> id >> parent >> dev >> rootf >> mnt;
        if (mnt == want)
            return true;
    }
    return false;
}

pid_t sim_server_pid(const std::string &root) {
    std::ifstream in(pid_path(root));
    long pid = 0;
    if (!(in >> pid) || pid <= 0)
        return -1;
    if (!sim_process_running(static_cast<pid_t>(pid)))
        return -1;
    // A recycled pid started later than the server did.
    unsigned long long started = 0;
    if (!(in >> started) || started != start_time(static_cast<pid_t>(pid)))
        return -1;
    return static_cast<pid_t>(pid);
}

int sim_up(const std::string &root, std::string *err) {
    if (access((root + "/system/build.prop").c_str(), F_OK) != 0) {
        *err = root + " is no device root (run vornsim create first)";
        return 1;
    }
    if (sim_server_pid(root) > 0) {
        *err = root + " is already up";
        return 1;
    }
    // What a crashed server left: a dead mount and links into it.
    std::string note;
    sim_down(root, &note);
    int pipefd[2];
    if (pipe2(pipefd, O_CLOEXEC) != 0) {
        *err = strerror(errno);
        return 1;
    }
    unique_fd rd(pipefd[0]), wr(pipefd[1]);
    pid_t pid = fork();
    if (pid < 0) {
        *err = strerror(errno);
        return 1;
    }
    if (pid == 0) {
        rd.reset();
        setsid();
        int log = open(log_path(root).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        int null = open("/dev/null", O_RDONLY);
        if (null >= 0)
            dup2(null, 0);
        if (log >= 0) {
            dup2(log, 1);
            dup2(log, 2);
        }
        serve(root, wr.release());
        _exit(0);
    }
    wr.reset();
    char status = 1;
    ssize_t n = read_retry(rd.get(), &status, 1);
    if (n != 1 || status != 0) {
        waitpid(pid, nullptr, 0);
        std::ifstream in(log_path(root));
        std::string line, last;
        while (std::getline(in, line))
            last = line;
        *err = last.empty() ? "the phone did not come up" : last;
        return 1;
    }
    return 0;
}

int sim_down(const std::string &root, std::string *note) {
    std::string mnt = sim_mount_dir(root);
    pid_t pid = sim_server_pid(root);
    bool was_up = pid > 0;
    if (pid > 0) {
        kill(pid, SIGTERM);
        // Our own child when brought up by this process (run, tests).
        for (int i = 0; i < 250 && sim_process_running(pid); i++)
            usleep(20000);
        if (sim_process_running(pid)) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, WNOHANG);
        }
    }
    bool stale = is_mount_point(mnt);
    if (stale)
        umount2(mnt.c_str(), MNT_DETACH);
    remove_sim_links(root);
    unlink(pid_path(root).c_str());
    if (was_up)
        *note = root + " is down";
    else if (stale)
        *note = root + ": removed the mount of a server that died";
    else
        *note = root + " was not up";
    return 0;
}

int sim_inject(const std::string &root, const std::string &line) {
    unique_fd fd(open(sim_control_path(root).c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd.valid())
        return -errno;
    ssize_t n = write(fd.get(), line.data(), line.size());
    if (n < 0)
        return -errno;
    return 0;
}
