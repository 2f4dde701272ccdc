#include "archive/file_util.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "archive/mini_zip.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {
struct DirCloser {
    void operator()(DIR *d) const { closedir(d); }
};
}  // namespace

void remove_tree(const char *path) {
    std::unique_ptr<DIR, DirCloser> dir(opendir(vorn_path(path).c_str()));
    if (!dir) {
        VLOGE("%s: opendir %s failed: %s.", "vornd", path, strerror(errno));
        return;
    }
    // Names the directory itself until an entry has been handled.
    char full[VORN_UPLOAD_PATH_MAX];
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

uint64_t file_size(const char *path) {
    struct stat st;
    if (stat(vorn_path(path).c_str(), &st) != 0) {
        VLOGE("Get size of %s error %s", path, strerror(errno));
        return 0;
    }
    return static_cast<uint64_t>(st.st_size);
}

int check_entry_size(const char *path, uint64_t size) {
    // Deflate's worst case for incompressible data (zlib's compressBound).
    uint64_t worst = size + (size >> 12) + (size >> 14) + (size >> 25) + 13;
    if (worst < 0xffffffffULL)
        return 0;
    VLOGE("%s: %s is too large for an archive without zip64\n", "vornd", path);
    return -1;
}
