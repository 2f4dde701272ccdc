#include "core/command_line.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/io.h"
#include "platform/log.h"

namespace {

constexpr int kRefused = 2 << 8;
constexpr int kWriteFailed = 1 << 8;

// Characters that mean something to the shell outside quotes. A line that
// holds one unquoted is not one of ours.
bool shell_special(char c) {
    return strchr("|&;<()$`*?[]#~{}!\\\"'", c) != nullptr || static_cast<unsigned char>(c) < 0x20 ||
           c == 0x7f;
}

}  // namespace

bool split_command_line(const char *line, std::vector<std::string> *words) {
    words->clear();
    const char *p = line;
    for (;;) {
        while (*p == ' ')
            p++;
        if (*p == '\0')
            return true;
        if (*p == '>') {
            words->emplace_back(">");
            p++;
            continue;
        }
        std::string word;
        while (*p != '\0' && *p != ' ' && *p != '>') {
            if (*p == '\'') {
                const char *end = strchr(p + 1, '\'');
                if (end == nullptr)
                    return false;
                word.append(p + 1, static_cast<size_t>(end - p - 1));
                p = end + 1;
            } else if (*p == '"') {
                for (p++; *p != '"'; p++) {
                    if (*p == '\0' || *p == '`' || *p == '$')
                        return false;
                    if (*p == '\\' && strchr("\\\"$`", p[1]) != nullptr && p[1] != '\0')
                        p++;
                    word += *p;
                }
                p++;
            } else if (*p == '\\') {
                if (p[1] == '\0' || static_cast<unsigned char>(p[1]) < 0x20)
                    return false;
                word += p[1];
                p += 2;
            } else if (shell_special(*p)) {
                return false;
            } else {
                word += *p++;
            }
        }
        words->push_back(std::move(word));
    }
}

void vorn_child_dies_with_parent(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The daemon may have gone between the fork and the prctl.
    if (getppid() != parent)
        _exit(127);
}

int run_program(const std::vector<std::string> &argv) {
    if (argv.empty())
        return kRefused;
    // Everything the child needs is made before the fork.
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        vorn_child_dies_with_parent(parent);
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

int run_daemon_line(const char *line) {
    std::vector<std::string> words;
    if (line == nullptr || !split_command_line(line, &words) || words.empty()) {
        VLOGE("Run command (%s) failed(%s)\n", line ? line : "", strerror(EINVAL));
        errno = EINVAL;
        return kRefused;
    }
    size_t redirect = words.size();
    for (size_t i = 0; i < words.size(); i++) {
        if (words[i] == ">" && redirect == words.size())
            redirect = i;
        else if (words[i] == ">")
            redirect = 0;  // two redirections: not ours
    }
    if (words[0] != "echo") {
        if (redirect != words.size()) {
            VLOGE("Run command (%s) failed(%s)\n", line, strerror(EINVAL));
            errno = EINVAL;
            return kRefused;
        }
        int status = run_program(words);
        if (status < 0)
            VLOGE("Run command (%s) failed(%s)\n", line, strerror(errno));
        else if (WIFSIGNALED(status))
            VLOGE("command(%s) terminated by signal %d\n", line, WTERMSIG(status));
        return status;
    }
    if (redirect == 0 || redirect + 2 != words.size()) {
        VLOGE("Run command (%s) failed(%s)\n", line, strerror(EINVAL));
        errno = EINVAL;
        return kRefused;
    }
    size_t first = 1;
    bool newline = true;
    if (first < redirect && words[first] == "-n") {
        newline = false;
        first++;
    }
    std::string text;
    for (size_t i = first; i < redirect; i++)
        text += (i > first ? " " : "") + words[i];
    if (newline)
        text += '\n';
    unique_fd fd(open(words.back().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!fd.valid() || write_all(fd.get(), text.data(), text.size()) < 0) {
        int err = errno;
        fd.reset();
        errno = err;
        return kWriteFailed;
    }
    fd.reset();
    return 0;
}

bool template_value_allowed(std::string_view value) {
    for (char c : value) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  (c != '\0' && strchr(" _-./:,=+@%", c) != nullptr);
        if (!ok)
            return false;
    }
    return true;
}
