#include "core/path_check.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/io.h"
#include "platform/root.h"

namespace {

// realpath of a host path, or "" when it cannot be resolved.
std::string real(const std::string &host) {
    unique_malloc<char> r(realpath(host.c_str(), nullptr));
    return r ? std::string(r.get()) : std::string();
}

// True when inner is strictly below outer (both resolved).
bool strictly_below(const std::string &inner, const std::string &outer) {
    if (outer == "/")
        return inner.size() > 1;
    return inner.size() > outer.size() + 1 && inner.compare(0, outer.size(), outer) == 0 &&
           inner[outer.size()] == '/';
}

}  // namespace

bool vorn_log_path_acceptable(const char *path) {
    if (path == nullptr || path[0] != '/')
        return false;
    bool only_slashes = true;
    std::string_view rest(path);
    while (!rest.empty()) {
        size_t slash = rest.find('/');
        std::string_view part = rest.substr(0, slash);
        if (part == "..")
            return false;
        if (!part.empty())
            only_slashes = false;
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    }
    return !only_slashes;
}

int vorn_resolve_dir_inside(const char *path, const char *dir, std::string *out) {
    if (path == nullptr || dir == nullptr || path[0] != '/' || dir[0] != '/')
        return -1;
    std::string src = real(vorn_path(path));
    std::string top = real(vorn_path(dir));
    if (src.empty() || top.empty() || !strictly_below(src, top))
        return -1;
    struct stat st;
    if (lstat(src.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return -1;
    // Back to a device path: the resolved root comes off again.
    std::string root = vorn_root()[0] != '\0' ? real(vorn_root()) : std::string("/");
    if (root.empty())
        return -1;
    if (root == "/") {
        *out = src;
    } else {
        if (!strictly_below(src, root))
            return -1;
        *out = src.substr(root.size());
    }
    return 0;
}

bool vorn_plain_name(const char *name) {
    return name != nullptr && name[0] != '\0' && strchr(name, '/') == nullptr &&
           strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}
