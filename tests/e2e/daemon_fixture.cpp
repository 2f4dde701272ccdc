#include "tests/e2e/daemon_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/temp_root.h"

extern char **environ;

namespace fs = std::filesystem;

namespace {

long long now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// Records each run in <dir>/am.log and exits with the status in <dir>/am.status.
std::string am_script(const std::string &dir) {
    return "#!/bin/sh\n"
           "echo \"$*\" >>'" +
           dir + "/am.log'\n" + "exit $(cat '" + dir + "/am.status' 2>/dev/null || echo 0)\n";
}

}  // namespace

std::string build_binary(const char *name) {
    return std::string(VORN_BINARY_DIR) + "/" + name;
}

DaemonFixture::DaemonFixture() {
    const char *tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/vorn-e2e-XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp: " << strerror(errno);
        return;
    }
    dir_ = tmpl;
    root_ = dir_ + "/root";
    stderr_path_ = dir_ + "/vornd.stderr";
    for (const char *d : {"/etc", "/data", "/dev/socket", "/sdcard/logs", "/system/bin"})
        fs::create_directories(root_ + d);
    fs::create_symlink("/bin/sh", root_ + "/system/bin/sh");
    write_file(root_ + "/system/build.prop", "ro.build.type=userdebug\n");
    write_file(dir_ + "/bin/am", am_script(dir_));
    chmod((dir_ + "/bin/am").c_str(), 0755);
}

DaemonFixture::~DaemonFixture() {
    stop();
    if (::testing::Test::HasFailure() && !stderr_path_.empty()) {
        std::string text = log();
        size_t pos = text.size();
        for (int lines = 0; lines <= 80 && pos != std::string::npos && pos > 0; lines++)
            pos = text.rfind('\n', pos - 1);
        pos = pos == std::string::npos ? 0 : pos + 1;
        printf("---- last lines of vornd's log (%s)\n%s----\n", stderr_path_.c_str(),
               text.substr(pos).c_str());
    }
    if (!dir_.empty() && getenv("VORN_KEEP_E2E") == nullptr) {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
}

std::string DaemonFixture::at(std::string_view device_path) const {
    std::string p(device_path);
    if (p.empty() || p.front() != '/')
        p.insert(p.begin(), '/');
    return root_ + p;
}

void DaemonFixture::write(std::string_view device_path, std::string_view content) const {
    write_file(at(device_path), content);
}

std::string DaemonFixture::read(std::string_view device_path) const {
    return read_file(at(device_path));
}

void DaemonFixture::write_config(std::string_view xml) const {
    write("/etc/vorn-conf.xml", xml);
}

void DaemonFixture::set_am_exit_status(int status) const {
    write_file(dir_ + "/am.status", std::to_string(status) + "\n");
}

std::vector<std::string> DaemonFixture::broadcasts() const {
    std::vector<std::string> out;
    std::istringstream in(read_file(dir_ + "/am.log"));
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

bool DaemonFixture::start(const std::vector<std::string> &extra_args, int timeout_ms) {
    if (pid_ > 0 && !reaped_)
        return false;
    // Everything the child needs is prepared before the fork.
    std::string vornd = build_binary("vornd");
    std::vector<std::string> args = {vornd, "--root", root_};
    args.insert(args.end(), extra_args.begin(), extra_args.end());
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const char *old_path = getenv("PATH");
    std::string path_var = "PATH=" + dir_ + "/bin:" + (old_path ? old_path : "/usr/bin:/bin");
    std::vector<char *> envp;
    for (char **e = environ; *e != nullptr; e++) {
        if (strncmp(*e, "PATH=", 5) != 0 && strncmp(*e, "ANDROID_SOCKET_", 15) != 0)
            envp.push_back(*e);
    }
    envp.push_back(path_var.data());
    envp.push_back(nullptr);
    size_t mark = log_mark();

    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        // Its own process group, so that stop() also ends the shell commands
        // its workers started; and it dies with the test.
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int err = open(stderr_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int null = open("/dev/null", O_RDWR);
        if (err < 0 || null < 0)
            _exit(127);
        dup2(null, 0);
        dup2(null, 1);
        dup2(err, 2);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    pid_ = pid;
    reaped_ = false;
    status_ = -1;
    setpgid(pid, pid);  // also here, so that stop() works whichever runs first

    long long deadline = now_ms() + timeout_ms;
    while (now_ms() < deadline) {
        if (!alive())
            return false;
        struct stat st;
        if (stat(socket_path().c_str(), &st) == 0 && S_ISSOCK(st.st_mode) &&
            log(mark).find("After listen") != std::string::npos) {
            return true;
        }
        usleep(10000);
    }
    return false;
}

bool DaemonFixture::alive() {
    if (pid_ <= 0 || reaped_)
        return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        status_ = status;
        return false;
    }
    return true;
}

void DaemonFixture::stop() {
    if (pid_ <= 0)
        return;
    kill(-pid_, SIGKILL);
    if (!reaped_) {
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
        status_ = status;
    }
}

int DaemonFixture::exit_status() {
    alive();
    if (!reaped_)
        return -1;
    if (WIFEXITED(status_))
        return WEXITSTATUS(status_);
    return WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : -1;
}

std::string DaemonFixture::log(size_t from) const {
    std::ifstream in(stderr_path_, std::ios::binary);
    if (!in)
        return "";
    in.seekg(static_cast<std::streamoff>(from));
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

size_t DaemonFixture::log_mark() const {
    struct stat st;
    return stat(stderr_path_.c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
}

std::string DaemonFixture::wait_for_log(std::string_view text, int timeout_ms, size_t from,
                                        size_t *next) const {
    long long deadline = now_ms() + timeout_ms;
    for (;;) {
        std::string tail = log(from);
        // Only complete lines count: the daemon may be in the middle of one.
        size_t pos = tail.find(text);
        size_t end = pos == std::string::npos ? pos : tail.find('\n', pos);
        if (end != std::string::npos) {
            size_t begin = tail.rfind('\n', pos);
            begin = begin == std::string::npos ? 0 : begin + 1;
            if (next != nullptr)
                *next = from + end + 1;
            return tail.substr(begin, end - begin);
        }
        if (now_ms() >= deadline)
            return "";
        usleep(20000);
    }
}

std::vector<std::string> DaemonFixture::log_lines(std::string_view text, size_t from) const {
    std::vector<std::string> out;
    std::istringstream in(log(from));
    for (std::string line; std::getline(in, line);) {
        if (line.find(text) != std::string::npos)
            out.push_back(line);
    }
    return out;
}

int DaemonFixture::connect_socket() const {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", socket_path().c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

CtrlExchange DaemonFixture::exchange(std::string_view bytes, int timeout_ms) const {
    CtrlExchange r;
    int fd = connect_socket();
    if (fd < 0)
        return r;
    r.connected = true;
    struct timeval tv = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;  // the daemon closed early; read what it left
        sent += static_cast<size_t>(n);
    }
    if (bytes.empty())
        shutdown(fd, SHUT_WR);
    for (;;) {
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
            r.reply.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        // End of stream, or a reset because it closed with our bytes unread.
        r.closed = n == 0 || errno == ECONNRESET;
        break;
    }
    close(fd);
    return r;
}

CtrlExchange DaemonFixture::exchange(const vorn_ctrl_msg &msg, int timeout_ms) const {
    return exchange(msg_bytes(msg), timeout_ms);
}

ProcessResult DaemonFixture::vornctl(const std::vector<std::string> &args, int timeout_ms) const {
    std::vector<std::string> argv = {build_binary("vornctl"), "--root", root_};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_process(argv, timeout_ms);
}

vorn_ctrl_msg ctrl_msg(uint8_t type, const char *logname, uint8_t enable, const char *mask) {
    vorn_ctrl_msg m;
    vorn_msg_init(&m, type);
    m.enable = enable;
    vorn_msg_put_text(m.logname, sizeof m.logname, logname);
    vorn_msg_put_text(m.mask, sizeof m.mask, mask);
    return m;
}

std::string msg_bytes(const vorn_ctrl_msg &msg) {
    return std::string(reinterpret_cast<const char *>(&msg), sizeof msg);
}

long long log_line_ms(std::string_view line) {
    int mon, day, h, m, s, ms;
    std::string l(line.substr(0, 18));
    if (sscanf(l.c_str(), "%2d-%2d %2d:%2d:%2d.%3d", &mon, &day, &h, &m, &s, &ms) != 6)
        return -1;
    return ((day * 24LL + h) * 60 + m) * 60000LL + s * 1000LL + ms;
}
