#include "capture/pipe_worker.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "capture/log_writer.h"
#include "capture/worker_util.h"
#include "core/command_line.h"
#include "platform/log.h"
#include "platform/root.h"

extern char **environ;

namespace {

constexpr int kWaitMillis = 5000;  // a silent provider is looked at every 5 s
// A read takes whatever the pipe holds, up to a full pipe's worth, and is
// written and flushed at once: it never waits for more, so a reset loses no
// more than with small reads.
constexpr size_t kReadSize = 64 * 1024;
constexpr int kEmptyReadsPerMessage = 10;
constexpr const char *kShell = "/system/bin/sh";

// The pipe variant: the provider command's standard output copied into the
// node's rotated files. States: idle (no command; a file may stay open after
// a command ended by itself) and running (command started, file open).
class pipe_worker {
  public:
    explicit pipe_worker(vorn_node *node) : node_(node) {}

    [[noreturn]] void run() {
        {
            vorn_node_guard g(node_);
            node_->worker_thread = static_cast<uint64_t>(pthread_self());
        }
        prepare_log_root(node_);

        for (;;) {
            const char *provider = idle_poll();
            // A provider change while running restarts at once, without the poll.
            while (start(provider) && read_loop(&provider)) {
            }
        }
    }

  private:
    // Sleeps and looks at the node until it is enabled; returns its provider.
    const char *idle_poll() {
        for (;;) {
            sleep(VORN_POLL_SECONDS);
            const char *provider = nullptr;
            switch (look_at_idle_node(node_, &provider)) {
                case idle_look::start:
                    return provider;
                case idle_look::tear_down:
                    stop();
                    close_log_file(&file_);
                    break;
                case idle_look::idle:
                    break;
            }
        }
    }

    // Starts the command; true when it runs with a file open.
    bool start(const char *provider) {
        if (provider == nullptr || *provider == '\0') {
            // Standard error on purpose, not the Android log.
            fprintf(stderr, "%s: no log_provider\n", "capture_pipe");
            return false;
        }
        // Everything the child needs is made before the fork: after it, only
        // async-signal-safe calls.
        std::string shell = vorn_path(kShell);
        char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                              const_cast<char *>(provider), nullptr};
        int fds[2] = {-1, -1};
        pid_t pid = -1;
        pid_t parent = getpid();
        auto *child = static_cast<capture_child *>(malloc(sizeof(capture_child)));
        // Close-on-exec, so that other workers' providers never hold this pipe open.
        if (child == nullptr || pipe2(fds, O_CLOEXEC) != 0 || (pid = fork()) < 0) {
            if (fds[0] >= 0) {
                close(fds[0]);
                close(fds[1]);
            }
            free(child);
            VLOGE("Failed to start the program(%s) or create \t\t\t\t\t\tthe pipe\n", provider);
            return false;
        }
        if (pid == 0)
            exec_provider(parent, fds, shell.c_str(), argv);

        close(fds[1]);
        child->fd = fds[0];
        child->pid = pid;
        child_ = child;
        if (file_.fp == nullptr && open_log_file(node_, &file_, path_) != 0) {
            VLOGE("Failed to create out file\n");
            stop();
            return false;
        }
        return true;
    }

    [[noreturn]] static void exec_provider(pid_t parent, const int fds[2], const char *shell,
                                           char *const argv[]) {
        vorn_child_dies_with_parent(parent);
        close(fds[0]);
        if (fds[1] != STDOUT_FILENO) {
            dup2(fds[1], STDOUT_FILENO);
            close(fds[1]);
        } else {
            fcntl(STDOUT_FILENO, F_SETFD, 0);
        }
        // SIGHUP is how the provider gets stopped: never inherit it ignored or blocked.
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        sigaction(SIGHUP, &dfl, nullptr);
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        execve(shell, argv, environ);
        _exit(127);
    }

    // Copies the command's output until it ends, a write fails or the node
    // changes. True after a change while enabled: *provider is then the
    // command to start at once; false to go back to the idle poll.
    bool read_loop(const char **provider) {
        for (;;) {
            // poll, not select: a descriptor number past 1023 must work too.
            struct pollfd pfd = {child_->fd, POLLIN, 0};
            int ready = poll(&pfd, 1, kWaitMillis);
            if (ready < 0) {
                VLOGE("error occured in select\n");
            } else if (ready > 0) {
                ssize_t n = read(child_->fd, buf_.get(), kReadSize);
                if (n == 0) {
                    // The countdown is never reset by data: the message comes
                    // with the first end of output and then every tenth.
                    if (--empty_countdown_ == 0) {
                        VLOGE("Read none from pipe %s 10 times, so close it! \n", *provider);
                        empty_countdown_ = kEmptyReadsPerMessage;
                    }
                    stop();
                    return false;  // the file stays open for the next run
                }
                if (n > 0 && !copy(static_cast<int>(n)))
                    return false;
                // A failed read counts as a time-out.
            }

            node_change change = take_node_change(node_, provider);
            if (change == node_change::none)
                continue;
            stop();
            close_log_file(&file_);
            return change == node_change::reopen;
        }
    }

    // Writes one chunk, first moving to a new file when one was asked for.
    // False when the file is no longer usable (command stopped, file closed).
    bool copy(int n) {
        // Blocks until the log root takes a file again; the output waits in the pipe.
        serve_new_file_request(node_, &file_, path_);
        if (write_log_data(buf_.get(), n, &file_, path_, node_) != n) {
            stop();
            close_log_file(&file_);
            return false;
        }
        fflush(file_.fp);
        return true;
    }

    void stop() {
        if (child_ != nullptr)
            stop_child(child_);
        child_ = nullptr;
    }

    vorn_node *node_;
    capture_child *child_ = nullptr;  // non-null while running
    int empty_countdown_ = 1;
    vorn_log_file file_{};
    char path_[VORN_PATH_MAX] = "";
    std::unique_ptr<char[]> buf_{new char[kReadSize]};
};

}  // namespace

void capture_pipe_output(vorn_node *node) {
    // Lives as long as the process; never returns.
    pipe_worker worker(node);
    worker.run();
}

int stop_child(capture_child *child) {
    if (child == nullptr)
        return -1;
    kill(child->pid, SIGHUP);
    int status = 0;
    for (;;) {
        pid_t ret = waitpid(child->pid, &status, 0);
        int err = errno;
        VLOGE("pstat = 0x%08x, pid = %d\n", status, ret);
        if (ret >= 0)
            break;
        if (err == EINTR)
            continue;
        close(child->fd);
        free(child);
        return ret;
    }
    close(child->fd);
    free(child);
    return status;
}
