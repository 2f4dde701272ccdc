#include "tests/capture/capture_env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <set>

#include "capture/capture_worker.h"
#include "capture/logger_entry.h"
#include "core/gbl_config.h"
#include "core/node_ops.h"
#include "tests/support/text.h"

namespace fs = std::filesystem;

TempRoot &capture_root() {
    static TempRoot *root = [] {
        setenv("TZ", "UTC", 1);  // lines carry local time
        tzset();
        auto *r = new TempRoot();
        r->mkdir("/system/bin");  // providers run through the device's shell
        symlink("/bin/sh", r->at("/system/bin/sh").c_str());
        return r;
    }();
    return *root;
}

namespace {
// Workers left idle by the tests only poll their nodes: the tree can go.
struct CaptureEnvironment : testing::Environment {
    void SetUp() override { capture_root(); }
    void TearDown() override { delete &capture_root(); }
};
[[maybe_unused]] testing::Environment *const g_env =
    testing::AddGlobalTestEnvironment(new CaptureEnvironment);

std::string top_dir(const std::string &log_root) {
    return capture_root().at(log_root.substr(0, log_root.find('/', 1)));
}
}  // namespace

std::string fresh_log_root(const std::string &tag, const std::string &dir, int32_t global_size) {
    static int counter = 0;
    std::string root = "/" + tag + "-" + std::to_string(++counter) + "/logs/";
    gbl_config_guard g;
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", root.c_str());
    gbl_config.size = global_size;
    return capture_root().at(root + dir);
}

std::string device_log_root(const std::string &tag) {
    return fresh_log_root(tag, "").substr(capture_root().path().size());
}

// The row every capture node of the daemon's register table has.
const vorn_node_ops kCaptureRow = {"Default", check_capture_ops, set_node_state, set_node_state,
                                   capture_pipe};

vorn_node *make_node(const char *name, uint8_t logtype, const char *provider, const char *filepath,
                     int32_t size) {
    static auto *arena = new std::deque<vorn_node>();  // workers hold their node for ever
    vorn_node &node = arena->emplace_back();
    memset(&node, 0, sizeof node);
    pthread_mutex_init(&node.lock, nullptr);
    snprintf(node.logname, sizeof node.logname, "%s", name);
    node.logtype = logtype;
    node.size = size;
    node.log_provider = strdup(provider);
    node.log_filepath = strdup(filepath);
    node.ops = &kCaptureRow;
    return &node;
}

vorn_node *start_pipe_node(const char *provider, const char *filepath, int32_t size) {
    vorn_node *node = make_node("Default", VORN_KIND_PIPE, provider, filepath, size);
    node->enable = 1;
    vorn_node_create_work_thread(node);
    return node;
}

void set_enable(vorn_node *node, bool enable, const char *mask) {
    vorn_node_guard g(node);
    node->enable = enable ? 1 : 0;
    if (mask)
        snprintf(node->mask, sizeof node->mask, "%s", mask);
    node->pending_change = 1;
}

bool disable_and_settle(vorn_node *node) {
    set_enable(node, false);
    // Taken up within a poll (3 s) when idle, a select (5 s) when running.
    bool taken = wait_for(
        [&] {
            vorn_node_guard g(node);
            return node->pending_change == 0;
        },
        9000);
    usleep(200 * 1000);  // the stop and the close follow at once
    return taken;
}

std::string file_at(const std::string &host_dir, size_t i) {
    auto names = list_dir(host_dir);
    return i < names.size() ? read_file(host_dir + "/" + names[i]) : std::string();
}

std::string read_dir_files(const std::string &dev_dir) {
    return dir_contents(capture_root().at(dev_dir));
}

bool dir_becomes(const std::string &dev_dir, const std::string &want, int timeout_ms) {
    return wait_for([&] { return read_dir_files(dev_dir) == want; }, timeout_ms);
}

int time_suffixes(const std::string &name, const std::string &prefix) {
    static const std::string shape = ".9999_99_99-99_99_99";
    if (name.rfind(prefix, 0) != 0 || (name.size() - prefix.size()) % shape.size() != 0)
        return -1;
    for (size_t i = prefix.size(); i < name.size(); i++) {
        char want = shape[(i - prefix.size()) % shape.size()];
        if (want == '9' ? !isdigit(static_cast<unsigned char>(name[i])) : name[i] != want)
            return -1;
    }
    return static_cast<int>((name.size() - prefix.size()) / shape.size());
}

bool has_zombie_child() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

std::string klog_entry(const std::string &payload, int len_field) {
    vorn_klog_entry h{};
    h.len = static_cast<uint16_t>(len_field < 0 ? payload.size() : len_field);
    h.pid = 1234;
    h.tid = 1235;
    h.sec = 1700000000;
    h.nsec = 123456789;
    return std::string(reinterpret_cast<const char *>(&h), sizeof h) + payload;
}

std::string klog_text(char prio, const std::string &tag, const std::string &msg) {
    return std::string(1, prio) + tag + std::string(1, '\0') + msg + std::string(1, '\0');
}

int make_fifo(const std::string &dev) {
    capture_root().mkdir("/dev");
    std::string path = capture_root().at(dev);
    mkfifo(path.c_str(), 0600);
    return open(path.c_str(), O_RDWR | O_CLOEXEC);
}

bool put(int fd, const std::string &bytes, int timeout_ms) {
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        return false;
    return wait_for(
        [&] {
            int pending = 0;
            return ioctl(fd, FIONREAD, &pending) == 0 && pending == 0;
        },
        timeout_ms);
}

void block_log_root(const std::string &log_root) {
    std::error_code ec;
    fs::remove_all(top_dir(log_root), ec);
    write_file(top_dir(log_root), "not a directory");
}

void unblock_log_root(const std::string &log_root) {
    unlink(top_dir(log_root).c_str());
}

bool blocked_reading(const std::string &needle, int skip_fd) {
    std::set<long> fds;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        std::error_code lec;
        std::string target = std::filesystem::read_symlink(e.path(), lec).string();
        long fd = atol(e.path().filename().c_str());
        if (!lec && fd != skip_fd && target.find(needle) != std::string::npos)
            fds.insert(fd);
    }
    // A task's "syscall" file starts with the call's number and its first
    // argument, the descriptor of a read. Under qemu-user it shows the host's
    // call: read is 0 on x86_64 hosts (io_setup on arm64, which never blocks).
    for (const auto &e : std::filesystem::directory_iterator("/proc/self/task", ec)) {
        long nr = -1;
        unsigned long arg = 0;
        if (sscanf(read_file(e.path().string() + "/syscall").c_str(), "%ld %lx", &nr, &arg) == 2 &&
            (nr == SYS_read || nr == 0) && fds.count(static_cast<long>(arg)) != 0)
            return true;
    }
    return false;
}

size_t mappings_naming(const std::string &needle) {
    size_t n = 0;
    for (const std::string &l : lines_of(read_file("/proc/self/maps")))
        n += l.find(needle) != std::string::npos;
    return n;
}
