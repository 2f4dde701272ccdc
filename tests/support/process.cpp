#include "tests/support/process.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/temp_root.h"

namespace {
// Output goes to memory files, so that children left behind holding them
// never delay the result.
std::string read_all(int fd) {
    std::string s;
    char buf[4096];
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, static_cast<off_t>(s.size()))) > 0;)
        s.append(buf, static_cast<size_t>(n));
    return s;
}

std::string contents(int fd) {
    std::string s = read_all(fd);
    close(fd);
    return s;
}
}  // namespace

BackgroundProcess::BackgroundProcess(const std::vector<std::string> &argv) {
    out_ = memfd_create("out", MFD_CLOEXEC);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out_, 1);
        execv(args[0], args.data());
        _exit(127);
    }
}

std::string BackgroundProcess::out() const {
    return read_all(out_);
}

int BackgroundProcess::stop() {
    if (pid_ > 0) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        pid_ = -1;
    }
    return status_;
}

BackgroundProcess::~BackgroundProcess() {
    stop();
    close(out_);
}

ProcessResult run_process(const std::vector<std::string> &argv, int timeout_ms) {
    ProcessResult r;
    int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out, 1);
        dup2(err, 2);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; waited += 2) {
        if (waited >= timeout_ms) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        usleep(2000);
    }
    if (WIFEXITED(status))
        r.exit_status = WEXITSTATUS(status);
    r.out = contents(out);
    r.err = contents(err);
    return r;
}

bool process_gone(pid_t pid) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return stat.empty() || (paren != std::string::npos && stat[paren + 2] == 'Z');
}

long resident_kib(pid_t pid) {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

size_t open_fds_naming(const std::string &needle) {
    size_t n = 0;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        std::error_code lec;
        std::string target = std::filesystem::read_symlink(e.path(), lec).string();
        n += !lec && target.find(needle) != std::string::npos;
    }
    return n;
}
