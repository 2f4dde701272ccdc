#include "tests/qdss/qdss_env.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "core/gbl_config.h"
#include "sim/device_root.h"

TempRoot &qdss_root() {
    static TempRoot *root = [] {
        auto *r = new TempRoot();
        std::string err;
        if (!create_device_root(r->path(), DeviceRootOptions{}, &err))
            fprintf(stderr, "qdss tests: no device root: %s\n", err.c_str());
        // The phone's recording stop and start, which the ETM commands run.
        std::string path = r->at("/system/bin") + ":" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        return r;
    }();
    return *root;
}

std::string qdss_log_dir(const std::string &tag, const std::string &dir) {
    qdss_root();
    std::string root = "/" + tag + "/logs/";
    pthread_mutex_lock(&gbl_config_mutex);
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", root.c_str());
    pthread_mutex_unlock(&gbl_config_mutex);
    return root + "/" + dir;
}

namespace {

// Everything the tests hand to pipeline threads, which never end.
std::vector<std::unique_ptr<vorn_node>> &kept_nodes() {
    static auto *nodes = new std::vector<std::unique_ptr<vorn_node>>;
    return *nodes;
}
std::vector<std::unique_ptr<qdss_state>> &kept_states() {
    static auto *states = new std::vector<std::unique_ptr<qdss_state>>;
    return *states;
}

}  // namespace

vorn_node *qdss_node(const char *provider, const char *filepath, int32_t size) {
    auto *node = kept_nodes().emplace_back(new vorn_node{}).get();
    pthread_mutex_init(&node->lock, nullptr);
    snprintf(node->logname, sizeof node->logname, "QDSS");
    snprintf(node->mask, sizeof node->mask, "/data/qdss.mask");
    node->log_provider = provider ? strdup(provider) : nullptr;
    node->log_filepath = strdup(filepath);
    node->size = size;
    return node;
}

void qdss_switch(vorn_node *node, bool enable) {
    vorn_node_guard g(node);
    node->enable = enable ? 1 : 0;
    node->pending_change = 1;
}

qdss_state *qdss_new_state() {
    auto *s = kept_states().emplace_back(new qdss_state).get();
    qdss_state_init(s);
    return s;
}

int qdss_fifo(const std::string &device_path) {
    std::string path = qdss_root().at(device_path);
    mkfifo(path.c_str(), 0600);
    return open(path.c_str(), O_RDWR | O_CLOEXEC);
}

std::string qdss_pattern(size_t size, uint64_t seed) {
    std::string s(size, '\0');
    for (size_t off = 0; off + 8 <= size; off += 8) {
        uint64_t word = off + seed;
        memcpy(&s[off], &word, 8);
    }
    return s;
}

std::string qdss_files(const std::string &device_dir) {
    return dir_contents(qdss_root().at(device_dir));
}
