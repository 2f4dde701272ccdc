// The "vorn_zip" thread: packs one log directory into a zip archive in the
// upload area, removes the directory and broadcasts the outcome.
#include "archive/mini_zip.h"

#include <dirent.h>
#include <fcntl.h>
#include <minizip/zip.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "archive/entry_size.h"
#include "core/ctrl_msg.h"
#include "core/file_util.h"
#include "core/shell.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

const char kDaemon[] = "vornd";
const int kEntryFailed = -4;

// Opens a source entry for reading. Only regular files and directories are
// opened (a directory fails on its first read, as a file that cannot be
// read): an open of a FIFO would block the walk for ever, and opening a device
// node can have side effects. *size is the file's size at the open.
unique_file open_source(const char *path, uint64_t *size) {
    std::string host = vorn_path(path);
    struct stat st;
    if (stat(host.c_str(), &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)))
        return nullptr;
    int fd = open(host.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return nullptr;
    // The entry may have been replaced between the stat and the open.
    if (fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) {
        close(fd);
        return nullptr;
    }
    FILE *fp = fdopen(fd, "rb");
    if (fp == nullptr) {
        close(fd);
        return nullptr;
    }
    *size = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    return unique_file(fp);
}

// Adds one source file as the archive entry in_zip. Returns the entry's
// status: 0, or non-zero to stop the walk.
int add_entry(zipFile zf, char *buf, const char *path, const char *in_zip, bool *too_large) {
    uint64_t size = 0;
    auto fp = open_source(path, &size);
    if (!fp) {
        VLOGE("%s: error in opening %s for reading\n", kDaemon, path);
        return -1;
    }
    if (check_entry_size(path, size) != 0) {
        *too_large = true;
        return kEntryFailed;
    }
    zip_fileinfo zi;
    memset(&zi, 0, sizeof zi);
    int err = zipOpenNewFileInZip3_64(zf, in_zip, &zi, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                      Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY,
                                      nullptr, 0, 0);
    if (err != ZIP_OK) {
        VLOGE("%s: error in zip opening %s in zipfile.\n", kDaemon, path);
        return err;
    }
    int status = 0;
    uint64_t total = 0;
    size_t n;
    do {
        n = fread(buf, 1, VORN_ZIP_READ_SIZE, fp.get());
        if (n < VORN_ZIP_READ_SIZE && !feof(fp.get())) {
            VLOGE("%s: error in reading %s\n", kDaemon, path);
            if (n == 0) {
                status = kEntryFailed;
                break;
            }
        }
        if (n > 0) {
            // A file still being written may have grown past the limit.
            total += n;
            if (check_entry_size(path, total) != 0) {
                *too_large = true;
                status = kEntryFailed;
                break;
            }
            if (zipWriteInFileInZip(zf, buf, static_cast<unsigned>(n)) < 0) {
                VLOGE("%s: error in writing %s in the zipfile\n", kDaemon, path);
                status = kEntryFailed;
                break;
            }
        }
    } while (n > 0);
    fp.reset();
    // A failed entry is left to zipClose, which ends it.
    if (status == 0) {
        status = zipCloseFileInZip(zf);
        if (status != ZIP_OK)
            VLOGE("%s: error in zipCloseFileInZip %s in the zipfile\n", kDaemon, path);
    }
    return status;
}

// Adds every entry of src in directory order until one fails. desc_path
// (VORN_UPLOAD_PATH_MAX bytes) receives the path of the "description" file.
void add_entries(zipFile zf, char *buf, DIR *dir, const char *src, char *desc_path,
                 bool *too_large) {
    char path[VORN_UPLOAD_PATH_MAX];
    char in_zip[VORN_UPLOAD_PATH_MAX];
    int status = 0;
    while (status == 0) {
        struct dirent *ent = readdir(dir);
        if (ent == nullptr)
            break;
        if (ent->d_name[0] == '.')
            continue;
        snprintf(path, sizeof path, "%s/%s", src, ent->d_name);
        if (strstr(ent->d_name, "description") != nullptr) {
            snprintf(in_zip, sizeof in_zip, "%s", ent->d_name);
            snprintf(desc_path, VORN_UPLOAD_PATH_MAX, "%s", path);
        } else {
            snprintf(in_zip, sizeof in_zip, "Crash/%s", ent->d_name);
        }
        status = add_entry(zf, buf, path, in_zip, too_large);
    }
}

void remove_file(const char *path) {
    if (remove(vorn_path(path).c_str()) != 0 && errno != ENOENT)
        VLOGE("%s: Failed to remove %s: %s", kDaemon, path, strerror(errno));
}

// Requests are written one at a time: two into the same archive would
// otherwise both append to it and leave one central directory.
std::mutex g_archive_lock;

// Writes the archive name from src. The entries go into a copy of the
// archive ("<name>.part") that replaces it only once it is closed, so a
// failure leaves the archive exactly as earlier requests left it. *had_entries
// tells whether the archive held any before. Returns the result of the notice.
int write_archive(const char *name, const char *src, char *desc_path, bool *too_large,
                  bool *had_entries) {
    // The archive was just created empty, and there is no zip to add into
    // yet: such a file is opened as a new archive.
    bool known = false;
    uint64_t size = file_size(name, &known);
    if (!known)
        VLOGE("Get size of %s error %s", name, strerror(errno));
    *had_entries = size > 0;
    std::string part = std::string(name) + ".part";
    if (*had_entries && copy_file(part.c_str(), name) != 0) {
        remove_file(part.c_str());
        VLOGE("%s: Zip Open failed.\n", kDaemon);
        return VORN_ZIP_OPEN_FAILED;
    }
    int append = *had_entries ? APPEND_STATUS_ADDINZIP : APPEND_STATUS_CREATE;
    zipFile zf = zipOpen(vorn_path(part).c_str(), append);
    if (zf == nullptr) {
        remove_file(part.c_str());
        VLOGE("%s: Zip Open failed.\n", kDaemon);
        return VORN_ZIP_OPEN_FAILED;
    }
    unique_malloc<char> buf(static_cast<char *>(malloc(VORN_ZIP_READ_SIZE)));
    unique_dir dir;
    if (!buf) {
        VLOGE("%s: malloc read_buf failed: %s.", kDaemon, strerror(errno));
    } else {
        dir.reset(opendir(vorn_path(src).c_str()));
        if (!dir)
            VLOGE("%s: opendir %s failed: %s.", kDaemon, src, strerror(errno));
        else
            add_entries(zf, buf.get(), dir.get(), src, desc_path, too_large);
    }
    int err = zipClose(zf, nullptr);
    dir.reset();
    if (err != ZIP_OK) {
        remove_file(part.c_str());
        VLOGE("%s: error in zipClose %s\n", kDaemon, name);
        return err;
    }
    // An archive that cannot hold every file is dropped and the source kept.
    if (*too_large) {
        remove_file(part.c_str());
        return VORN_ZIP_PREPARE_FAILED;
    }
    if (rename(vorn_path(part).c_str(), vorn_path(name).c_str()) != 0) {
        VLOGE("%s: error in zipClose %s\n", kDaemon, name);
        remove_file(part.c_str());
        return VORN_ZIP_OPEN_FAILED;
    }
    remove_tree(src);
    return VORN_ZIP_OK;
}

}  // namespace

void *mini_zip(void *message) {
    char logname[sizeof(vorn_ctrl_msg::logname)];
    char src[sizeof(vorn_ctrl_msg::mask)];
    {
        const auto *msg = static_cast<const vorn_ctrl_msg *>(message);
        snprintf(logname, sizeof logname, "%.*s", static_cast<int>(sizeof logname - 1),
                 msg->logname);
        snprintf(src, sizeof src, "%.*s", static_cast<int>(sizeof src - 1), msg->mask);
        free(message);
    }
    VLOGD("mini_zip: logname->%s, logpath->%s.\n", logname, src);

    int result = VORN_ZIP_PREPARE_FAILED;
    char name[VORN_UPLOAD_PATH_MAX] = "";
    char desc_path[VORN_UPLOAD_PATH_MAX] = "";
    bool too_large = false;
    bool had_entries = false;
    {
        std::lock_guard<std::mutex> serial(g_archive_lock);
        std::string source;
        if (archive_request_allowed(logname, src, &source) &&
            prepare_upload_archive(name, sizeof name, logname, source.c_str()) == 0) {
            result = write_archive(name, source.c_str(), desc_path, &too_large, &had_entries);
            // A failed request takes back only the empty archive it created.
            if (result != VORN_ZIP_OK && result != VORN_ZIP_PREPARE_FAILED) {
                if (!had_entries)
                    remove_file(name);
                if (desc_path[0] != '\0')
                    remove_file(desc_path);
            } else if (too_large && !had_entries) {
                remove_file(name);
            }
        }
    }

    char extras[256];
    snprintf(extras, sizeof extras, "--ei result %d --es para \"UPLOAD\"", result);
    send_broadcast(VORN_BROADCAST_ACTION, extras);
    return nullptr;
}
