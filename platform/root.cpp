#include "platform/root.h"

#include <cstring>

namespace {
// Never destroyed: detached threads may still resolve paths while the
// process exits.
std::string &root_dir() {
    static auto *root = new std::string;
    return *root;
}
}  // namespace

void vorn_set_root(const char *dir) {
    std::string &root = root_dir();
    root = dir ? dir : "";
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    if (root == "/")
        root.clear();
}

const char *vorn_root() {
    return root_dir().c_str();
}

std::string vorn_path(std::string_view device_path) {
    const std::string &root = root_dir();
    if (root.empty() || device_path.empty() || device_path.front() != '/') {
        return std::string(device_path);
    }
    std::string out;
    out.reserve(root.size() + device_path.size());
    out.append(root).append(device_path);
    return out;
}

int vorn_path_buf(const char *device_path, char *out, size_t out_len) {
    if (out == nullptr || out_len == 0)
        return -1;
    std::string p = vorn_path(device_path ? device_path : "");
    if (p.size() >= out_len) {
        out[0] = '\0';
        return -1;
    }
    memcpy(out, p.c_str(), p.size() + 1);
    return 0;
}
