// Positioned reads, the image count and load.cmm.
#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "dumpparser/dp_log.h"
#include "dumpparser/dump_io.h"
#include "dumpparser/dumpparser.h"
#include "platform/root.h"

int dp_join(char *out, size_t out_len, const char *dir, const char *name) {
    int n = snprintf(out, out_len, "%s/%s", dir, name);
    if (n < 0 || static_cast<size_t>(n) >= out_len) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}

int dp_seek(int fd, uint64_t off) {
    if (off > static_cast<uint64_t>(LLONG_MAX)) {
        errno = EINVAL;
        return -1;
    }
    return lseek(fd, static_cast<off_t>(off), SEEK_SET) < 0 ? -1 : 0;
}

int dp_locate(const dp_segments &seg, uint64_t addr, uint64_t *off) {
    for (int i = 0; i < seg.count; i++) {
        // Unsigned: an address below the base wraps to a huge offset.
        if (addr >= seg.base[i] && addr - seg.base[i] < seg.size[i]) {
            *off = addr - seg.base[i];
            return i;
        }
    }
    return -1;
}

int dumpparser_read_at(uint64_t off, const char *file, size_t len, void *buf) {
    unique_fd fd(open(vorn_path(file).c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        DPLOGE("%s: %s open failed: %s", DP, file, strerror(errno));
        return -1;
    }
    if (dp_seek(fd.get(), off) < 0) {
        DPLOGE("%s: Failed to seek %llu from %s: %s", DP, static_cast<unsigned long long>(off),
               file, strerror(errno));
        return -1;
    }
    errno = 0;
    ssize_t n = read_full(fd.get(), buf, len);
    if (n != static_cast<ssize_t>(len)) {
        DPLOGE("%s: Failed to read, rlen(%d) != len(%d): %s", DP, static_cast<int>(n),
               static_cast<int>(len), strerror(errno));
        return -1;
    }
    return 0;
}

int dumpparser_count_segments(const char *dir, const char *text) {
    unique_dir d(opendir(vorn_path(dir).c_str()));
    if (!d) {
        DPLOGE("%s: unable to opendir %s.\n", DP, dir);
        return 0;
    }
    int count = 0;
    while (struct dirent *e = readdir(d.get())) {
        if (strstr(e->d_name, text) != nullptr)
            count++;
    }
    return count;
}

int dumpparser_segment_base(const char *dir, int index, uint64_t *base) {
    char path[256];
    if (dp_join(path, sizeof(path), dir, "load.cmm") < 0) {
        DPLOGE("%s: %s/load.cmm open failed: %s", DP, dir, strerror(ENAMETOOLONG));
        return -1;
    }
    unique_file f(fopen(vorn_path(path).c_str(), "re"));
    if (!f) {
        DPLOGE("%s: %s open failed: %s", DP, path, strerror(errno));
        return -1;
    }
    char name[32];
    snprintf(name, sizeof(name), "DDRCS%d.BIN", index);
    size_t name_len = strlen(name);
    char line[512];
    while (fgets(line, sizeof(line), f.get()) != nullptr) {
        const char *hit = strstr(line, name);
        if (hit == nullptr)
            continue;
        const char *noclear = strstr(hit + name_len, "noclear");
        if (noclear == nullptr)
            continue;
        // "DDRCSn.BIN 0x<hex> /noclear": the digits start after " 0x" and end
        // before the blank and separator in front of "noclear".
        size_t from = static_cast<size_t>(hit - line) + name_len + 3;
        size_t to = static_cast<size_t>(noclear - line) - 2;
        if (to <= from)
            continue;
        char hex[24];
        size_t n = to - from < sizeof(hex) ? to - from : sizeof(hex) - 1;
        memcpy(hex, line + from, n);
        hex[n] = '\0';
        *base = strtoull(hex, nullptr, 16);
        return 0;
    }
    return -1;
}
