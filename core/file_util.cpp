#include "core/file_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "core/shell.h"
#include "platform/log.h"
#include "platform/root.h"

int vorn_mkdir_p(const char *host_dir) {
    std::string path(host_dir);
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    struct stat st;
    // The usual case, a directory that exists, costs one call instead of one
    // per component.
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return 0;
    // Each missing component in turn, as mkdir -p makes them.
    for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
        std::string part = path.substr(0, at);
        if (!part.empty() && part.back() != '/' && mkdir(part.c_str(), 0777) != 0 &&
            errno != EEXIST)
            return -1;
        if (at == std::string::npos)
            break;
    }
    if (stat(path.c_str(), &st) != 0)
        return -1;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

int wait_log_dir(const char *dir, int tries) {
    std::string host = vorn_path(dir ? dir : "");
    if (access(host.c_str(), W_OK) == 0)
        return 0;
    for (;;) {
        int ret = -1;
        if (mkdir(host.c_str(), 0777) == 0)
            return 0;
        if (errno == EROFS) {
            // Storage not mounted writable yet.
            sleep(1);
        } else {
            ret = vorn_mkdir_p(host.c_str());
            if (ret == 0) {
                VLOGD("Dir %s is not available, create it and start logging.", dir);
                return 0;
            }
        }
        if (tries != 0 && --tries == 0)
            return ret;
        sleep(1);
        if (access(host.c_str(), W_OK) == 0)
            return 0;
    }
}

void vorn_time_stamp(char *out, size_t len) {
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    if (len > 0 && strftime(out, len, VORN_TIME_FORMAT, &tm) == 0)
        out[0] = '\0';
}

int copy_file(const char *dest, const char *src) {
    std::string rsrc = vorn_path(src);
    std::string rdest = vorn_path(dest);
    unique_fd in(open(rsrc.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in.valid()) {
        VLOGE("Can't open file %s. err is %s", src, strerror(errno));
        return -1;
    }
    unique_fd out(open(rdest.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777));
    if (!out.valid()) {
        VLOGE("Can't open file %s. err is %s", dest, strerror(errno));
        return -1;
    }
    char buf[1024];
    int ret = 0;
    for (;;) {
        ssize_t n = read_retry(in.get(), buf, sizeof buf);
        if (n <= 0)
            break;  // end of file, or a read error: the copy ends either way
        ssize_t w = write_all(out.get(), buf, static_cast<size_t>(n));
        if (w != n) {
            VLOGE("%s: Failed to write file\n", "copy_file");
            ret = -1;
            break;
        }
    }
    return ret;
}

void remove_tree(const char *path) {
    unique_dir dir(opendir(vorn_path(path).c_str()));
    if (!dir) {
        VLOGE("%s: opendir %s failed: %s.", "vornd", path, strerror(errno));
        return;
    }
    // Names the directory itself until an entry has been handled.
    char full[VORN_TREE_PATH_MAX];
    snprintf(full, sizeof full, "%s", path);
    while (struct dirent *ent = readdir(dir.get())) {
        if (ent->d_name[0] == '.')
            continue;
        int n = snprintf(full, sizeof full, "%s/%s", path, ent->d_name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof full) {
            // A cut path could name another file: leave the entry alone.
            VLOGE("%s: Failed to remove %s: %s", "vornd", full, strerror(ENAMETOOLONG));
            continue;
        }
        if (is_directory(full) == 1) {
            remove_tree(full);
        } else if (remove(vorn_path(full).c_str()) != 0) {
            VLOGE("%s: Failed to remove %s: %s", "vornd", full, strerror(errno));
        }
    }
    dir.reset();
    if (remove(vorn_path(path).c_str()) != 0)
        VLOGE("%s: Failed to remove %s: %s", "vornd", full, strerror(errno));
}

int is_directory(const char *path) {
    struct stat st;
    // lstat: a link to a directory elsewhere is removed as a link, never
    // followed into a tree that is not ours to delete.
    if (lstat(vorn_path(path).c_str(), &st) != 0) {
        VLOGD("%s: Failed to get stat of %s: %s", "vornd", path, strerror(errno));
        return -1;
    }
    return S_ISDIR(st.st_mode) ? 1 : 0;
}

char *replace_string(const char *text, const char *token, const char *value) {
    if (text == nullptr)
        return nullptr;
    char *copy = strdup(text);
    if (copy == nullptr) {
        VLOGE("no space for strdup %s.", text);
        return nullptr;
    }
    const char *at = (token && *token) ? strstr(copy, token) : nullptr;
    if (at == nullptr)
        return copy;
    const char *val = value ? value : "";
    size_t before = static_cast<size_t>(at - copy);
    const char *after = at + strlen(token);
    size_t len = before + strlen(val) + strlen(after) + 1;
    char *out = static_cast<char *>(malloc(len));
    if (out == nullptr) {
        VLOGE("no space for replaced string!");
        free(copy);
        return nullptr;
    }
    snprintf(out, len, "%.*s%s%s", static_cast<int>(before), copy, val, after);
    free(copy);
    return out;
}
