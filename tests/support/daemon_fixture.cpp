#include "tests/support/daemon_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "tests/support/text.h"
#include "tests/support/wait.h"

std::string build_binary(const char *name) {
    return std::string(VORN_BINARY_DIR) + "/" + name;
}

DaemonFixture::DaemonFixture() : stderr_path_(at("/host/vornd.stderr")) {
    for (const char *d : {"/etc", "/data", "/dev/socket", "/sdcard/logs", "/system/bin"})
        mkdir(d);
    symlink("/bin/sh", at("/system/bin/sh").c_str());
    write("/system/build.prop", "ro.build.type=userdebug\n");
    write("/host/bin/am", "#!/bin/sh\necho \"$*\" >>'" + at("/host/am.log") + "'\n");
    chmod(at("/host/bin/am").c_str(), 0755);
}

DaemonFixture::~DaemonFixture() {
    stop();
    // A sanitizer report of the instrumented daemon fails the test that ran it.
    std::string all = log();
    size_t report = all.find("Sanitizer:");
    if (report != std::string::npos)
        ADD_FAILURE() << "vornd reported:\n" << all.substr(all.rfind('\n', report) + 1, 4000);
    if (::testing::Test::HasFailure()) {
        std::string text = log();
        printf("---- end of vornd's log\n%s----\n",
               text.substr(text.size() > 8000 ? text.size() - 8000 : 0).c_str());
    }
}

std::vector<std::string> DaemonFixture::broadcasts() const {
    return lines_of(read("/host/am.log"));
}

std::string DaemonFixture::wait_for_broadcast(std::string_view text, int timeout_ms) const {
    std::string found;
    wait_until(
        [&] {
            for (const std::string &b : broadcasts())
                if (b.find(text) != std::string::npos)
                    found = b;
            return !found.empty();
        },
        timeout_ms, 50);
    return found;
}

bool DaemonFixture::start(int timeout_ms, const std::vector<std::string> &args) {
    size_t mark = log_mark();
    std::string vornd = build_binary("vornd");
    std::string path_var = at("/host/bin") + ":" + getenv("PATH");
    std::vector<std::string> words = {vornd, "--root", path()};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        // Its own process group, so that stop() also ends the commands its
        // workers started; and it dies with the test.
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int err = open(stderr_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(err, 2);
        setenv("PATH", path_var.c_str(), 1);
        execv(vornd.c_str(), argv.data());
        _exit(127);
    }
    setpgid(pid_, pid_);  // also here, so that stop() works whichever runs first
    reaped_ = false;
    for (int waited = 0; waited < timeout_ms && alive(); waited += 10) {
        if (log(mark).find("After listen") != std::string::npos)
            return true;
        if (!args.empty()) {
            int fd = connect_socket();
            if (fd >= 0) {
                close(fd);
                return true;
            }
        }
        usleep(10000);
    }
    return false;
}

bool DaemonFixture::alive() {
    if (pid_ > 0 && !reaped_ && waitpid(pid_, &status_, WNOHANG) == pid_)
        reaped_ = true;
    return pid_ > 0 && !reaped_;
}

void DaemonFixture::stop() {
    if (pid_ <= 0)
        return;
    kill(-pid_, SIGKILL);
    if (!reaped_)
        waitpid(pid_, &status_, 0);
    reaped_ = true;
}

int DaemonFixture::exit_status() {
    alive();
    return reaped_ && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

std::string DaemonFixture::log(size_t from) const {
    std::string text = read_file(stderr_path_);
    return from < text.size() ? text.substr(from) : "";
}

std::string DaemonFixture::wait_for_log(std::string_view text, int timeout_ms, size_t from,
                                        size_t *next) const {
    for (int waited = 0;; waited += 20) {
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
        if (waited >= timeout_ms)
            return "";
        usleep(20000);
    }
}

std::vector<std::string> DaemonFixture::log_lines(std::string_view text, size_t from) const {
    std::vector<std::string> out;
    for (const std::string &line : lines_of(log(from)))
        if (line.find(text) != std::string::npos)
            out.push_back(line);
    return out;
}

int DaemonFixture::connect_socket() const {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", at("/dev/socket/vornd").c_str());
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
    // A request fits the socket's buffer in one send; a daemon that closed
    // early leaves what it sent to read.
    if (bytes.empty())
        shutdown(fd, SHUT_WR);
    else
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0)
            r.reply.append(buf, static_cast<size_t>(n));
    }
    // End of stream, or a reset because it closed with our bytes unread.
    r.closed = n == 0 || errno == ECONNRESET;
    close(fd);
    return r;
}

CtrlExchange DaemonFixture::exchange(const vorn_ctrl_msg &msg, int timeout_ms) const {
    return exchange(msg_bytes(msg), timeout_ms);
}

ProcessResult DaemonFixture::vornctl(const std::vector<std::string> &args) const {
    std::vector<std::string> argv = {build_binary("vornctl"), "--root", path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_process(argv, 30000);
}

vorn_ctrl_msg ctrl_msg(uint8_t type, const char *logname, uint8_t enable, const char *mask) {
    vorn_ctrl_msg m;
    vorn_msg_init(&m, type);
    m.enable = enable;
    vorn_msg_put_text(m.logname, sizeof m.logname, logname);
    vorn_msg_put_text(m.mask, sizeof m.mask, mask);
    return m;
}

vorn_ctrl_msg log_path_msg(const char *path) {
    vorn_ctrl_msg m = ctrl_msg(VORN_MSG_SET_LOG_PATH);
    vorn_msg_put_text(reinterpret_cast<char *>(&m) + VORN_MSG_GBL_LOG_PATH_OFF,
                      VORN_MSG_GBL_LOG_PATH_LEN, path);
    return m;
}

std::string msg_bytes(const vorn_ctrl_msg &msg) {
    return std::string(reinterpret_cast<const char *>(&msg), sizeof msg);
}

long long log_line_ms(std::string_view line, time_t now) {
    int mon, day, h, m, s, ms;
    std::string l(line.substr(0, 18));
    if (sscanf(l.c_str(), "%2d-%2d %2d:%2d:%2d.%3d", &mon, &day, &h, &m, &s, &ms) != 6)
        return -1;
    // The line has no year: it is this year's, unless its month lies ahead of
    // today's (a run that crossed New Year's Eve). mktime then takes care of
    // month ends and of the daylight-saving offset in force at that time.
    struct tm today;
    localtime_r(&now, &today);
    struct tm t = {};
    t.tm_year = today.tm_year - (mon - 1 > today.tm_mon ? 1 : 0);
    t.tm_mon = mon - 1;
    t.tm_mday = day;
    t.tm_hour = h;
    t.tm_min = m;
    t.tm_sec = s;
    t.tm_isdst = -1;
    time_t at = mktime(&t);
    if (at == static_cast<time_t>(-1))
        return -1;
    return static_cast<long long>(at) * 1000 + ms;
}
