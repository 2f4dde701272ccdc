#include "platform/properties.h"
#include "platform/io.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#ifdef __ANDROID__
#include <cutils/properties.h>

int vorn_property_get(const char *key, char *value, const char *default_value) {
    return property_get(key, value, default_value);
}

int vorn_property_set(const char *key, const char *value) {
    return property_set(key, value) == 0 ? 0 : -1;
}

#else
#include <fcntl.h>
#include <unistd.h>

#include <mutex>

#include "platform/root.h"

namespace {

constexpr const char *kPropFile = "/system/build.prop";
std::mutex g_prop_mutex;  // serialises read-modify-write of the file

std::string trim(std::string s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    size_t e = s.find_last_not_of(" \t\r\n");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// Returns true and the value when the file defines key (the last definition wins,
// as in Android's own loader).
bool lookup(const std::string &file, const char *key, std::string *out) {
    unique_file f(fopen(file.c_str(), "re"));
    if (!f)
        return false;
    bool found = false;
    char *raw = nullptr;
    size_t cap = 0;
    while (getline(&raw, &cap, f.get()) > 0) {
        std::string l = trim(raw);
        if (l.empty() || l[0] == '#')
            continue;
        size_t eq = l.find('=');
        if (eq == std::string::npos)
            continue;
        if (trim(l.substr(0, eq)) == key) {
            *out = trim(l.substr(eq + 1));
            found = true;
        }
    }
    free(raw);
    return found;
}

}  // namespace

int vorn_property_get(const char *key, char *value, const char *default_value) {
    std::string v;
    bool found;
    {
        std::lock_guard<std::mutex> g(g_prop_mutex);
        found = key != nullptr && lookup(vorn_path(kPropFile), key, &v);
    }
    if (!found)
        v = default_value ? default_value : "";
    if (v.size() > VORN_PROP_VALUE_MAX - 1)
        v.resize(VORN_PROP_VALUE_MAX - 1);
    memcpy(value, v.c_str(), v.size() + 1);
    return static_cast<int>(v.size());
}

int vorn_property_set(const char *key, const char *value) {
    if (key == nullptr || *key == '\0' || value == nullptr)
        return -1;
    if (strlen(value) >= VORN_PROP_VALUE_MAX || strchr(key, '=') || strchr(key, '\n') ||
        strchr(value, '\n')) {
        return -1;
    }
    std::lock_guard<std::mutex> g(g_prop_mutex);
    std::string file = vorn_path(kPropFile);
    std::string out;
    bool replaced = false;
    if (unique_file f{fopen(file.c_str(), "re")}) {
        char *line = nullptr;
        size_t cap = 0;
        while (getline(&line, &cap, f.get()) > 0) {
            std::string l = line;
            std::string t = trim(l);
            size_t eq = t.find('=');
            if (!t.empty() && t[0] != '#' && eq != std::string::npos &&
                trim(t.substr(0, eq)) == key) {
                if (!replaced)
                    out += std::string(key) + "=" + value + "\n";
                replaced = true;
                continue;
            }
            out += l;
            if (!l.empty() && l.back() != '\n')
                out += '\n';
        }
        free(line);
    }
    if (!replaced)
        out += std::string(key) + "=" + value + "\n";

    std::string tmp = file + ".tmp";
    unique_fd fd(open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.valid())
        return -1;
    if (write_all(fd.get(), out.data(), out.size()) < 0) {
        fd.reset();
        unlink(tmp.c_str());
        return -1;
    }
    // close() reports a failed write-back of the data, so it is checked.
    if (close(fd.release()) != 0 || rename(tmp.c_str(), file.c_str()) != 0) {
        unlink(tmp.c_str());
        return -1;
    }
    return 0;
}
#endif
