#include "platform/root.h"

#include <cstring>

namespace {
std::string g_root;
}

void vorn_set_root(const char *dir) {
    g_root = dir ? dir : "";
    while (g_root.size() > 1 && g_root.back() == '/')
        g_root.pop_back();
    if (g_root == "/")
        g_root.clear();
}

const char *vorn_root() {
    return g_root.c_str();
}

std::string vorn_path(std::string_view device_path) {
    if (g_root.empty() || device_path.empty() || device_path.front() != '/') {
        return std::string(device_path);
    }
    std::string out;
    out.reserve(g_root.size() + device_path.size());
    out.append(g_root).append(device_path);
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
