#include "archive/archive_name.h"

#include <dirent.h>

#include <cstdio>
#include <cstring>

#include "core/file_util.h"
#include "platform/io.h"
#include "platform/root.h"

bool archive_entry_stamp(const char *name, char *stamp) {
    if (name[0] == '.')
        return false;
    const char *desc = strstr(name, VORN_DESC_PREFIX);
    if (desc == nullptr)
        return false;
    snprintf(stamp, VORN_DESC_STAMP_MAX + 1, "%s", desc + strlen(VORN_DESC_PREFIX));
    return true;
}

std::string archive_dir_stamp(const char *src, bool *from_description) {
    char stamp[VORN_DESC_STAMP_MAX + 1];
    *from_description = false;
    unique_dir dir(opendir(vorn_path(src).c_str()));
    while (struct dirent *ent = dir ? readdir(dir.get()) : nullptr) {
        if (archive_entry_stamp(ent->d_name, stamp)) {
            *from_description = true;
            return stamp;
        }
    }
    char now[32];
    vorn_time_stamp(now, sizeof now);
    return now;
}

std::string archive_upload_dir(const char *log_path, const char *logname) {
    return std::string(log_path) + "/upload/" + logname;
}

std::string archive_file_name(const std::string &upload_dir, const char *stamp) {
    return upload_dir + "/log_" + stamp + ".zip";
}
