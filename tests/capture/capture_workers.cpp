#include "tests/capture/capture_workers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "tests/capture/capture_env.h"

namespace {
// Lines carry local time: the tests pin it before anything runs.
[[maybe_unused]] const bool g_utc = (setenv("TZ", "UTC", 1), tzset(), true);
}  // namespace

vorn_node *make_capture_node(const char *name, uint8_t logtype, const char *provider,
                             const char *filepath) {
    vorn_node *node = make_node(provider, filepath, 0);
    snprintf(node->logname, sizeof node->logname, "%s", name);
    node->logtype = logtype;
    return node;
}

std::string device_log_root(const std::string &tag) {
    return fresh_log_root(tag, "").substr(capture_root().path().size());
}

void set_enable_mask(vorn_node *node, bool on, const char *mask) {
    vorn_node_guard g(node);
    node->enable = on ? 1 : 0;
    snprintf(node->mask, sizeof node->mask, "%s", mask);
    node->pending_change = 1;
}

int make_fifo(const std::string &dev) {
    capture_root().mkdir("/dev");
    std::string path = capture_root().at(dev);
    mkfifo(path.c_str(), 0600);
    return open(path.c_str(), O_RDWR | O_CLOEXEC);
}

namespace {
std::string top_dir(const std::string &log_root) {
    return capture_root().at(log_root.substr(0, log_root.find('/', 1)));
}
}  // namespace

void block_log_root(const std::string &log_root) {
    std::error_code ec;
    std::filesystem::remove_all(top_dir(log_root), ec);
    write_file(top_dir(log_root), "not a directory");
}

void unblock_log_root(const std::string &log_root) {
    unlink(top_dir(log_root).c_str());
}

std::string read_dir_files(const std::string &dev_dir) {
    std::string all;
    std::string dir = capture_root().at(dev_dir);
    for (const auto &name : list_dir(dir))
        all += read_file(dir + "/" + name);
    return all;
}
