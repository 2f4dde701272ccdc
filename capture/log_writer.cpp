#include "capture/log_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "capture/log_name.h"
#include "core/gbl_config.h"
#include "core/shell.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

// Appends src to the NUL-terminated dst of capacity cap, cutting it so that
// dst never holds more than cap - 1 characters.
void append_bounded(char *dst, size_t cap, const char *src) {
    size_t used = strnlen(dst, cap);
    if (used + 1 >= cap)
        return;
    size_t n = strnlen(src, cap - used - 1);
    memcpy(dst + used, src, n);
    dst[used + n] = '\0';
}

// The log root as gbl_config holds it (not always terminated within the field).
std::string log_root() {
    return std::string(gbl_config.log_path, strnlen(gbl_config.log_path, VORN_LOG_PATH_LEN));
}

// Marks the open file as failed: the next open continues it.
void note_failure(vorn_log_file *file) {
    file->write_failed = true;
}

// True when the open file has been unlinked (its directory or the whole log
// root removed under a running worker): everything written there would be
// lost. Looked at no more than once a second.
bool file_was_removed(vorn_log_file *file) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    if (ts.tv_sec == file->linked_checked)
        return false;
    file->linked_checked = ts.tv_sec;
    struct stat st;
    return fstat(fileno(file->fp), &st) == 0 && st.st_nlink == 0;
}

// Replaces a removed file by a new one (its directory made again).
int reopen_removed(vorn_log_file *file, char *path, vorn_node *node) {
    VLOGW("Log file %s was removed, continuing in a new file.\n", path);
    fclose(file->fp);
    file->fp = nullptr;
    file->written = 0;
    file->resume[0] = '\0';
    return open_log_file(node, file, path);
}

int compare_names(const void *a, const void *b) {
    return strncmp(*static_cast<char *const *>(a), *static_cast<char *const *>(b), VORN_PATH_MAX);
}

// Removes like remove(3), relative to the directory already open.
int remove_at(int dfd, const char *name) {
    int ret = unlinkat(dfd, name, 0);
    if (ret != 0 && (errno == EISDIR || errno == EPERM))
        ret = unlinkat(dfd, name, AT_REMOVEDIR);
    return ret;
}

// The sequence number a new file named base would need: 0 when no file of
// the node carries base's stamp, otherwise one past the highest in use, where
// "base" and "base.<roll-over time>" count as 0 and "base_NNNN[...]" as NNNN.
int next_sequence(const char *base) {
    const char *slash = strrchr(base, '/');
    std::string dir(base, static_cast<size_t>(slash - base));
    const char *name = slash + 1;
    size_t name_len = strlen(name);
    unique_dir d(opendir(vorn_path(dir).c_str()));
    if (!d)
        return 0;
    int next = 0;
    while (struct dirent *e = readdir(d.get())) {
        if (strncmp(e->d_name, name, name_len) != 0)
            continue;
        int used = vorn_log_name_sequence(e->d_name + name_len);
        if (used >= next)
            next = used + 1;
    }
    return next;
}

// Opens a new file for appending at path (its name ends in the opening time).
// Several files opened in one second must not share a name: the roll-over
// renames the closed file, and a second file of the same name would be moved
// onto it. So a name already used in this second gets "_NNNN", which sorts
// after every earlier file of that second and before the next second's, and
// still starts with the node's prefix for pruning. The number follows the
// one this handle used last for the same name; only a name found taken
// (another writer's, or one left from before) costs a scan of the directory.
// path is updated.
FILE *open_new_name(char *path, vorn_log_file *file) {
    size_t base_len = strlen(path);
    std::string base(path, base_len);
    bool known = strcmp(file->seq_base, base.c_str()) == 0;
    bool scanned = false;
    for (int seq = known ? file->seq_last + 1 : 0, tries = 0; tries < 100; tries++) {
        if (seq > 0)
            snprintf(path, VORN_PATH_MAX, "%s", vorn_log_sequence_name(base, seq).c_str());
        // Close-on-exec: provider commands must not inherit the daemon's files.
        int fd =
            open(vorn_path(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0666);
        if (fd >= 0) {
            FILE *fp = fdopen(fd, "a");
            if (fp == nullptr) {
                close(fd);
            } else {
                snprintf(file->seq_base, sizeof file->seq_base, "%s", base.c_str());
                file->seq_last = seq;
            }
            return fp;
        }
        if (errno != EEXIST)
            break;
        seq = scanned ? seq + 1 : std::max(next_sequence(base.c_str()), seq + 1);
        scanned = true;
    }
    path[base_len] = '\0';
    return nullptr;
}

}  // namespace

int open_log_file(vorn_node *node, vorn_log_file *file, char *path) {
    file->fp = nullptr;
    const char *filepath = node->log_filepath ? node->log_filepath : "";

    char *slash;
    int status;
    {
        gbl_config_guard g;
        path[0] = '\0';
        append_bounded(path, VORN_PATH_MAX, log_root().c_str());
        append_bounded(path, VORN_PATH_MAX, "/");
        append_bounded(path, VORN_PATH_MAX, filepath);
        slash = strrchr(path, '/');
        if (slash == nullptr)
            return -1;
        *slash = '\0';
        // Held so that the workers create directories one at a time.
        status = vorn_mkdir_p(vorn_path(path).c_str());
    }
    if (status != 0) {
        VLOGE("Failed to create the directory: %s\n", path);
        return -1;
    }
    *slash = '/';

    // After a failed write the file it went to is continued, as long as it
    // is still there and still the node's file under the current log root.
    if (file->resume[0] != '\0' && strncmp(file->resume, path, strlen(path)) == 0 &&
        file->resume[strlen(path)] == '.') {
        unique_fd fd(open(vorn_path(file->resume).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        struct stat st;
        if (fd.valid() && fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode)) {
            if (FILE *fp = fdopen(fd.get(), "a")) {
                fd.release();
                file->fp = fp;
                file->written = static_cast<uint64_t>(st.st_size);
                snprintf(path, VORN_PATH_MAX, "%s", file->resume);
                return 0;
            }
        }
    }
    file->resume[0] = '\0';

    char suffix[32];
    vorn_log_time_suffix(suffix, sizeof suffix);
    append_bounded(path, VORN_PATH_MAX, suffix);
    file->fp = open_new_name(path, file);
    if (file->fp == nullptr) {
        VLOGE("Failed to create the log file: %s\n", path);
        return -1;
    }
    snprintf(file->resume, sizeof file->resume, "%s", path);
    return 0;
}

int write_log_data(const char *data, int len, vorn_log_file *file, char *path, vorn_node *node) {
    if (file->fp == nullptr || len < 0)
        return -1;
    if (file_was_removed(file) && reopen_removed(file, path, node) != 0)
        return -1;
    size_t n = fwrite(data, 1, static_cast<size_t>(len), file->fp);
    // A stream in error lost buffered data in an earlier flush (a full disk
    // shows up there first): report it like a short write.
    int write_len = static_cast<int>(n);
    if (write_len == len && ferror(file->fp))
        write_len = 0;
    if (write_len != len) {
        VLOGE("Failed to write to log file. write_len = %d, len = %d", write_len, len);
        note_failure(file);
        return write_len;
    }

    file->written += static_cast<uint64_t>(len);
    uint32_t budget = static_cast<uint32_t>(node->size);
    if (budget == 0) {
        gbl_config_guard g;
        budget = static_cast<uint32_t>(gbl_config_size());
    }
    if (budget == 0 || file->written <= budget / 10)
        return len;

    vorn_log_file next{};
    memcpy(next.seq_base, file->seq_base, sizeof next.seq_base);
    next.seq_last = file->seq_last;
    char next_path[VORN_PATH_MAX];
    if (open_log_file(node, &next, next_path) != 0) {
        VLOGE("Failed to create new log file.");
        note_failure(file);
        return -1;
    }
    fclose(file->fp);
    file->written = 0;
    file->fp = next.fp;
    memcpy(file->seq_base, next.seq_base, sizeof file->seq_base);
    file->seq_last = next.seq_last;

    // The closed file gets the time of the roll-over as a second suffix.
    char old_path[VORN_PATH_MAX];
    snprintf(old_path, sizeof old_path, "%s", path);
    char suffix[32];
    vorn_log_time_suffix(suffix, sizeof suffix);
    std::string moved = std::string(old_path) + suffix;
    rename(vorn_path(old_path).c_str(), vorn_path(moved).c_str());
    snprintf(path, VORN_PATH_MAX, "%s", next_path);
    snprintf(file->resume, sizeof file->resume, "%s", next_path);

    char *slash = strrchr(old_path, '/');
    if (slash == nullptr) {
        VLOGE("There is no / in %s.\n", old_path);
        return -1;
    }
    *slash = '\0';
    const char *filepath = node->log_filepath ? node->log_filepath : "";
    const char *prefix = strrchr(filepath, '/');
    if (prefix == nullptr) {
        VLOGE("There is no / in %s.\n", filepath);
        return -1;
    }
    rotate_log_files(old_path, prefix + 1, VORN_KEEP_FILES);
    return len;
}

void close_log_file(vorn_log_file *file) {
    bool failed = file->write_failed;
    if (file->fp != nullptr) {
        // Data still buffered that cannot be flushed is a failed write too.
        failed = ferror(file->fp) != 0 || failed;
        failed = fclose(file->fp) != 0 || failed;
    }
    file->fp = nullptr;
    file->written = 0;
    if (!failed)
        file->resume[0] = '\0';
    file->write_failed = false;
}

int rotate_log_files(const char *dir, const char *prefix, int keep) {
    unique_dir d(opendir(vorn_path(dir).c_str()));
    if (!d)
        return -1;
    size_t prefix_len = strlen(prefix);
    if (keep < 0)
        keep = 0;
    size_t cap = static_cast<size_t>(keep) + 2;
    char **names = static_cast<char **>(malloc(cap * sizeof(char *)));
    if (names == nullptr)
        return -1;
    size_t count = 0;
    auto free_names = [&] {
        for (size_t i = 0; i < count; i++)
            free(names[i]);
        free(names);
    };

    while (struct dirent *e = readdir(d.get())) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        if (strncmp(e->d_name, prefix, prefix_len) != 0)
            continue;
        if (count == cap) {
            auto *grown = static_cast<char **>(realloc(names, (cap + 10) * sizeof(char *)));
            if (grown == nullptr) {
                free_names();
                return -1;
            }
            names = grown;
            cap += 10;
        }
        names[count] = strdup(e->d_name);
        if (names[count] == nullptr) {
            free_names();
            return -1;
        }
        count++;
    }
    qsort(names, count, sizeof(char *), compare_names);

    if (count > static_cast<size_t>(keep)) {
        // Names are removed relative to the open directory, which stands in for
        // changing the working directory to it (that step cannot fail here).
        int ret = 0;
        int dfd = dirfd(d.get());
        // Empty files go first (a full disk may have left some behind), then
        // the oldest; the newest entry may be the file just opened, empty yet.
        std::vector<size_t> order;
        for (size_t i = 0; i + 1 < count; i++) {
            struct stat st;
            if (fstatat(dfd, names[i], &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
                st.st_size == 0)
                order.push_back(i);
        }
        for (size_t i = 0; i < count; i++) {
            if (std::find(order.begin(), order.end(), i) == order.end())
                order.push_back(i);
        }
        order.resize(count - static_cast<size_t>(keep));
        std::sort(order.begin(), order.end());  // removed in name order, as always
        for (size_t i : order) {
            if (remove_at(dfd, names[i]) != 0)
                VLOGE("Remove %s failed, ret = %d, %s", names[i], ret, strerror(errno));
            VLOGD("Remove %s from %s for log rotation", names[i], dir);
        }
    }
    int found = static_cast<int>(count);
    free_names();
    return found;
}

int scan_file_logpath(const char *log_filepath, int keep) {
    const char *filepath = log_filepath ? log_filepath : "";
    // Under the lock: a log-path change from the socket may be under way.
    std::string root;
    {
        gbl_config_guard guard;
        root = log_root();
    }
    size_t len = root.size() + 1 + strlen(filepath) + 1;
    char *full = static_cast<char *>(malloc(len));
    if (full == nullptr) {
        VLOGE("No space for full_logpath!\n");
        return -1;
    }
    snprintf(full, len, "%s/%s", root.c_str(), filepath);
    char *slash = strrchr(full, '/');
    if (slash == nullptr || slash == full) {
        VLOGE("Unable to place logs in root directory\n");
        free(full);
        return -1;
    }
    char *dirpath = strndup(full, static_cast<size_t>(slash - full));
    if (dirpath == nullptr) {
        VLOGE("No space for dirpath!\n");
        free(full);
        return -1;
    }
    char *prefix = strdup(slash + 1);
    if (prefix == nullptr) {
        VLOGE("No space for logname_prefix!\n");
        free(dirpath);
        free(full);
        return -1;
    }
    VLOGD("scan_file_logpath, dirpath:%s, logname_prefix:%s, full_logpath:%s", dirpath, prefix,
          full);
    int ret = rotate_log_files(dirpath, prefix, keep);
    free(prefix);
    free(dirpath);
    free(full);
    return ret;
}
