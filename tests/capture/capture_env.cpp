#include "tests/capture/capture_env.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>

#include "core/daemon/register_table.h"
#include "core/gbl_config.h"
#include "core/node_ops.h"

TempRoot &capture_root() {
    static TempRoot *root = [] {
        auto *r = new TempRoot();  // removed by the environment below
        // Providers run through the device's shell.
        r->mkdir("/system/bin");
        symlink("/bin/sh", r->at("/system/bin/sh").c_str());
        return r;
    }();
    return *root;
}

namespace {

class CaptureEnvironment : public testing::Environment {
  public:
    // Workers left idle by the tests only poll their node: the tree can go.
    void TearDown() override { delete &capture_root(); }
};

[[maybe_unused]] testing::Environment *const g_env =
    testing::AddGlobalTestEnvironment(new CaptureEnvironment);

}  // namespace

std::string fresh_log_root(const std::string &tag, int32_t global_size) {
    static int counter = 0;
    capture_root();
    std::string dir = "/" + tag + "-" + std::to_string(++counter) + "/logs/";
    pthread_mutex_lock(&gbl_config_mutex);
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", dir.c_str());
    gbl_config.size = global_size;
    pthread_mutex_unlock(&gbl_config_mutex);
    return dir;
}

vorn_node *make_node(const char *name, uint8_t logtype, const char *provider, const char *filepath,
                     int32_t size) {
    // Workers hold their node for ever: never free one.
    static auto *arena = new std::deque<vorn_node>();
    vorn_node &node = arena->emplace_back();
    memset(&node, 0, sizeof node);
    pthread_mutex_init(&node.lock, nullptr);
    snprintf(node.logname, sizeof node.logname, "%s", name);
    node.logtype = logtype;
    node.size = size;
    node.log_provider = provider ? strdup(provider) : nullptr;
    node.log_filepath = filepath ? strdup(filepath) : nullptr;
    node.pending_change = 1;
    vorn_node_ops_init(&node);
    return &node;
}

std::vector<std::string> list_dir(const std::string &host_dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(host_dir.c_str())) {
        while (struct dirent *e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                names.emplace_back(e->d_name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// ".YYYY_MM_DD-HH_MM_SS", n times, after prefix.
static bool suffixes(const std::string &name, const std::string &prefix, int n) {
    static const char shape[] = ".9999_99_99-99_99_99";
    const size_t len = sizeof shape - 1;
    if (name.rfind(prefix, 0) != 0 || name.size() != prefix.size() + n * len)
        return false;
    for (size_t i = prefix.size(); i < name.size(); i++) {
        char want = shape[(i - prefix.size()) % len];
        char got = name[i];
        if (want == '9' ? (got < '0' || got > '9') : got != want)
            return false;
    }
    return true;
}

bool has_one_suffix(const std::string &name, const std::string &prefix) {
    return suffixes(name, prefix, 1);
}

bool has_two_suffixes(const std::string &name, const std::string &prefix) {
    return suffixes(name, prefix, 2);
}

void sleep_to_next_second() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    usleep(static_cast<useconds_t>((1000000000L - ts.tv_nsec) / 1000 + 100000));
}

int zombie_children() {
    int zombies = 0;
    pid_t self = getpid();
    if (DIR *d = opendir("/proc")) {
        while (struct dirent *e = readdir(d)) {
            if (e->d_name[0] < '0' || e->d_name[0] > '9')
                continue;
            std::string stat_path = std::string("/proc/") + e->d_name + "/stat";
            FILE *f = fopen(stat_path.c_str(), "re");
            if (f == nullptr)
                continue;
            char buf[512];
            size_t n = fread(buf, 1, sizeof buf - 1, f);
            fclose(f);
            buf[n] = '\0';
            // "pid (comm) state ppid ...": comm may hold blanks, so parse after the last ')'.
            const char *p = strrchr(buf, ')');
            char state = 0;
            int ppid = 0;
            if (p && sscanf(p + 1, " %c %d", &state, &ppid) == 2 && ppid == self && state == 'Z')
                zombies++;
        }
        closedir(d);
    }
    return zombies;
}

vorn_node *start_pipe_node(const char *name, const char *provider, const char *filepath,
                           int32_t size, bool enable) {
    vorn_node *node = make_node(name, 0x80, provider, filepath, size);
    node->enable = enable ? 1 : 0;
    node->pending_change = 0;
    vorn_node_create_work_thread(node);
    return node;
}

void set_enable(vorn_node *node, bool enable) {
    vorn_node_guard g(node);
    node->enable = enable ? 1 : 0;
    node->pending_change = 1;
}

bool disable_and_settle(vorn_node *node) {
    set_enable(node, false);
    // Seen within a poll (3 s) when idle, a select (5 s) when running.
    bool taken = wait_for([&] { return locked(node, node->pending_change) == 0; }, 9000);
    usleep(200 * 1000);  // the stop and close follow the flag at once
    return taken;
}
