#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern char **environ;

namespace {
long long now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}
}  // namespace

ProcessResult run_process(const std::vector<std::string> &argv, int timeout_ms,
                          const std::vector<std::string> &env) {
    ProcessResult r;
    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0)
        return r;
    if (pipe2(err_pipe, O_CLOEXEC) != 0) {
        close(out_pipe[0]);
        close(out_pipe[1]);
        return r;
    }
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        for (const auto &e : env)
            putenv(strdup(e.c_str()));
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execve(args[0], args.data(), environ);
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    long long deadline = now_ms() + timeout_ms;
    struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    int open_fds = 2;
    while (open_fds > 0) {
        long long left = deadline - now_ms();
        if (left <= 0) {
            r.timed_out = true;
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left)) <= 0)
            continue;
        for (auto &f : fds) {
            if (f.fd < 0 || !(f.revents & (POLLIN | POLLHUP | POLLERR)))
                continue;
            char buf[4096];
            ssize_t n = read(f.fd, buf, sizeof buf);
            if (n <= 0) {
                close(f.fd);
                f.fd = -1;
                open_fds--;
                continue;
            }
            (f.fd == out_pipe[0] ? r.out : r.err).append(buf, static_cast<size_t>(n));
        }
    }
    for (auto &f : fds) {
        if (f.fd >= 0)
            close(f.fd);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status))
        r.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        r.signal = WTERMSIG(status);
    return r;
}
