// The external-modem collector: after an MDM or QSC crash, copies the dump
// folders other components leave in /tombstones into the ramdump folder.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/file_util.h"
#include "crashdump/ssr.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

bool exists(const char *device_path) {
    return access(vorn_path(device_path).c_str(), F_OK) == 0;
}

// Copies the tree at src (device paths) into the existing directory dst;
// 0, or -1 at the first entry that could not be copied. Subfolders are copied
// too; FIFOs, sockets and device nodes are left, as opening them could block.
int copy_tree(const char *src, const char *dst, bool top) {
    unique_dir dir(opendir(vorn_path(src).c_str()));
    if (!dir) {
        if (top)
            VLOGE("Unable to open %s\n", src);
        return -1;
    }
    while (struct dirent *e = readdir(dir.get())) {
        if (e->d_name[0] == '.')
            continue;
        char from[SSR_PATH_LEN];
        char to[SSR_PATH_LEN];
        int n1 = snprintf(from, sizeof from, "%s/%s", src, e->d_name);
        int n2 = snprintf(to, sizeof to, "%s/%s", dst, e->d_name);
        if (n1 < 0 || n2 < 0 || static_cast<size_t>(n1) >= sizeof from ||
            static_cast<size_t>(n2) >= sizeof to)
            return -1;
        std::string host = vorn_path(from);
        struct stat st;
        if (stat(host.c_str(), &st) != 0)
            return -1;
        if (S_ISREG(st.st_mode)) {
            if (copy_file(to, from) != 0)
                return -1;
        } else if (S_ISDIR(st.st_mode) && is_directory(from) == 1) {
            if (ssr_make_dir(to) < 0 || copy_tree(from, to, false) != 0)
                return -1;
        } else {
            VLOGE("Skipping %s: not a regular file\n", from);
        }
    }
    return 0;
}

void copy_and_report(const ssr_state *st, bool mdm, const char *src, const char *stamp) {
    int rc = ext_modem_copy_dir(st, mdm ? "/mdm" : "/qsc", src, stamp);
    if (mdm)
        VLOGE(rc != 0 ? "MDM ramdump failed\n" : "MDM ramdump completed\n");
    else
        VLOGE(rc != 0 ? "QSC ramdump failed\n" : "QSC ramdump completed\n");
}

// Waits until a dump is pending and takes it; false once stopping.
bool wait_pending(ssr_state *st) {
    for (;;) {
        while (sem_wait(&st->ext_modem_sem) != 0 && errno == EINTR) {
        }
        if (st->stopping.load())
            return false;
        if (st->flags.fetch_and(~uint32_t{SSR_MDM_PENDING | SSR_QSC_PENDING}) &
            (SSR_MDM_PENDING | SSR_QSC_PENDING))
            return true;
    }
}

}  // namespace

int ext_modem_copy_dir(const ssr_state *st, const char *part, const char *src, const char *stamp) {
    char target[SSR_PATH_LEN];
    int n = snprintf(target, sizeof target, "%s%s%s", st->folder, part, stamp);
    if (n < 0 || static_cast<size_t>(n) >= sizeof target || ssr_make_dir(target) < 0) {
        VLOGE("Unable to create directory %s\n", target);
        return -EINVAL;
    }
    if (copy_tree(src, target, true) != 0) {
        remove_tree(target);
        return -EINVAL;
    }
    return 0;
}

void *ext_modem_thread(void *arg) {
    auto *st = static_cast<ssr_state *>(arg);
    while (wait_pending(st)) {
        char stamp[SSR_STAMP_LEN];
        if (ssr_timestamp(stamp, sizeof stamp) == nullptr)
            break;
        if (!exists(SSR_TOMBSTONES_MDM)) {
            VLOGE("Directory %s does not exist\n", SSR_TOMBSTONES_MDM);
            break;
        }
        // Which external modems the phone has, not which one crashed.
        uint32_t have = st->flags.load() & (SSR_UEVENT_MON | SSR_QSC_PRESENT);
        if (have == SSR_QSC_PRESENT) {
            copy_and_report(st, false, SSR_TOMBSTONES_MDM, stamp);
        } else if (have == SSR_UEVENT_MON) {
            copy_and_report(st, true, SSR_TOMBSTONES_MDM, stamp);
        } else {
            if (!exists(SSR_TOMBSTONES_MDM2)) {
                VLOGE("Directory %s does not exist\n", SSR_TOMBSTONES_MDM2);
                break;
            }
            copy_and_report(st, true, SSR_TOMBSTONES_MDM, stamp);
            copy_and_report(st, false, SSR_TOMBSTONES_MDM2, stamp);
        }
    }
    return nullptr;
}
