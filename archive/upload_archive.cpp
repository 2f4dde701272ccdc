// The upload directory and the empty archive file of one archive request.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "archive/archive_name.h"
#include "archive/entry_size.h"
#include "archive/mini_zip.h"
#include "core/file_util.h"
#include "core/gbl_config.h"
#include "core/path_check.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

bool archive_request_allowed(const char *logname, const char *src, std::string *source) {
    char log_path[VORN_LOG_PATH_LEN];
    {
        gbl_config_guard g;
        snprintf(log_path, sizeof log_path, "%s", gbl_config.log_path);
    }
    if (!vorn_plain_name(logname)) {
        VLOGE("%s: Refused log kind %s: not one plain name.\n", "vornd", logname);
        return false;
    }
    if (vorn_resolve_dir_inside(src, log_path, source) != 0) {
        VLOGE("%s: Refused to archive %s: not a directory inside the log path %s.\n", "vornd", src,
              log_path);
        return false;
    }
    return true;
}

void log_time_stamp(char *buf) {
    vorn_time_stamp(buf, VORN_STAMP_LEN);
}

int prepare_upload_archive(char *name, size_t len, const char *logname, const char *src) {
    // Under the lock: a path change read half way would name an upload area
    // made of two paths.
    char log_path[VORN_LOG_PATH_LEN];
    {
        gbl_config_guard g;
        snprintf(log_path, sizeof log_path, "%s", gbl_config.log_path);
    }
    char upload_dir[VORN_UPLOAD_PATH_MAX];
    snprintf(upload_dir, sizeof upload_dir, "%s", archive_upload_dir(log_path, logname).c_str());
    wait_log_dir(upload_dir, 1);

    unique_dir dir(opendir(vorn_path(src).c_str()));
    if (!dir) {
        VLOGE("%s: opendir %s failed: %s.", "vornd", upload_dir, strerror(errno));
        return -1;
    }

    // The same pass refuses a source with a file too large for the archive
    // before any archive file exists.
    char stamp[VORN_STAMP_LEN] = "";
    bool found = false;
    while (struct dirent *ent = readdir(dir.get())) {
        if (ent->d_name[0] == '.')
            continue;
        if (!found)
            found = archive_entry_stamp(ent->d_name, stamp);
        struct stat st;
        if (fstatat(dirfd(dir.get()), ent->d_name, &st, 0) == 0 && S_ISREG(st.st_mode)) {
            char path[VORN_UPLOAD_PATH_MAX];
            snprintf(path, sizeof path, "%s/%s", src, ent->d_name);
            if (check_entry_size(path, static_cast<uint64_t>(st.st_size)) != 0)
                return -1;
        }
    }
    if (!found) {
        VLOGE("There is no description file in crash dump folder.\n");
        log_time_stamp(stamp);
    }

    int n = snprintf(name, len, "%s", archive_file_name(upload_dir, stamp).c_str());
    if (n < 0 || static_cast<size_t>(n) >= len) {
        VLOGE("%s: Failed to create %s: %s.\n", "vornd", name, strerror(ENAMETOOLONG));
        return -1;
    }
    unique_file fp(fopen(vorn_path(name).c_str(), "ae"));
    if (!fp) {
        VLOGE("%s: Failed to create %s: %s.\n", "vornd", name, strerror(errno));
        return -1;
    }
    return 0;
}
