// One ramdump device's dump into the ramdump folder, and the small helpers the
// collector and its side threads share: the time stamp of dump names, the
// directory maker, dump file creation and the thread stopper.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "capture/log_writer.h"
#include "core/file_util.h"
#include "crashdump/ssr.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

char ramdump_list[SSR_MAX_DEVICES][SSR_NAME_LEN];

namespace {

bool starts_with(const char *text, const char *prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// Devices whose dumps say nothing about the trace sinks.
bool wakes_sink_dump(const char *name) {
    return !starts_with(name, "ramdump_smem") && !starts_with(name, "ramdump_audio-ocmem") &&
           !starts_with(name, "ramdump_modem_sw");
}

}  // namespace

char *ssr_timestamp(char *buf, size_t len) {
    if (buf == nullptr || len < SSR_STAMP_LEN) {
        VLOGE("Invalid timestamp buffer\n");
        return nullptr;
    }
    time_t now = time(nullptr);
    if (now == 0 || now == static_cast<time_t>(-1)) {
        VLOGE("Unable to get timestamp\n");
        return nullptr;
    }
    struct tm tm;
    if (localtime_r(&now, &tm) == nullptr) {
        VLOGE("Unable to get local time\n");
        return nullptr;
    }
    snprintf(buf, len, "-%04d-%02d-%02d_%02d-%02d-%02d", tm.tm_year + 1900, tm.tm_mon + 1,
             tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

int ssr_make_dir(const char *dir) {
    if (vorn_mkdir_p(vorn_path(dir).c_str()) != 0)
        return -errno;
    return 0;
}

int ssr_stop_thread(pthread_t thread, int sig) {
    int rc = pthread_kill(thread, sig);
    if (rc != 0)
        VLOGE("Unable to terminate thread %lu\n", static_cast<unsigned long>(thread));
    // Joined even when the signal could not be sent (the thread has already
    // ended), so that its resources are released.
    int jr = pthread_join(thread, nullptr);
    if (jr != 0) {
        VLOGE("pthread_join failed for thread %lu\n", static_cast<unsigned long>(thread));
        return jr;
    }
    return rc;
}

int ssr_open_dump_file(char *path, size_t len, const char *base, const char *ext) {
    for (int seq = 0; seq < 10000; seq++) {
        int n = seq == 0 ? snprintf(path, len, "%s%s", base, ext)
                         : snprintf(path, len, "%s_%04d%s", base, seq, ext);
        if (n < 0 || static_cast<size_t>(n) >= len) {
            errno = ENAMETOOLONG;
            return -1;
        }
        int fd = open(vorn_path(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0400);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    errno = EEXIST;
    return -1;
}

long ssr_dump_device(int i, ssr_state *st, const char *stamp) {
    if (i < 0 || i >= SSR_MAX_DEVICES)
        return -EINVAL;
    if ((st->pfds[i].revents & POLLIN) == 0)
        return 0;
    int idx = st->index[i];
    if (idx < 0 || idx >= SSR_MAX_DEVICES || st->folder == nullptr)
        return -EINVAL;
    const char *name = ramdump_list[idx];

    if (wakes_sink_dump(name)) {
        if (starts_with(name, "ramdump_modem") && (st->flags.load() & SSR_QSC_PRESENT)) {
            st->flags.fetch_or(SSR_QSC_PENDING);
            sem_post(&st->ext_modem_sem);
        }
        sem_post(&st->qdss_sem);
    }

    unique_malloc<char> buf(static_cast<char *>(malloc(SSR_COPY_CHUNK)));
    if (!buf)
        return -ENOMEM;

    std::string filter = std::string(name) + "-";
    VLOGD("SSR: logs rotation ,dump->dir = %s ,filter_name = %s", st->folder, filter.c_str());
    rotate_log_files(st->folder, filter.c_str(), SSR_KEEP_DUMPS);

    if (access(vorn_path(st->folder).c_str(), F_OK) != 0) {
        VLOGE("SSR: create %s\n", st->folder);
        int ret = ssr_make_dir(st->folder);
        if (ret < 0) {
            VLOGE("SSR: create %s err, skip dump %s\n", st->folder, name);
            return ret;
        }
    }

    int dev = st->fds[i];
    ssize_t n = read_retry(dev, buf.get(), 5);
    if (n <= 0)
        return 0;

    char base[SSR_PATH_LEN];
    char path[SSR_PATH_LEN];
    snprintf(base, sizeof base, "%s/%s%s", st->folder, name, stamp);
    const char *ext = memmem(buf.get(), static_cast<size_t>(n), "ELF", 3) ? ".elf" : ".bin";
    unique_fd out(ssr_open_dump_file(path, sizeof path, base, ext));
    if (!out.valid()) {
        VLOGE("Failed to open %s\n", path);
        return -EIO;
    }
    // The first bytes stay in the buffer and the next read fills it up, so
    // every write but the last is a whole aligned chunk (unaligned 32 KiB
    // writes cost the copy a third of its speed).
    long total = 0;
    size_t fill = static_cast<size_t>(n);
    for (;;) {
        ssize_t got = read_retry(dev, buf.get() + fill, SSR_COPY_CHUNK - fill);
        if (got > 0)
            fill += static_cast<size_t>(got);
        if (fill == SSR_COPY_CHUNK || (got < 1 && fill > 0)) {
            if (write_all(out.get(), buf.get(), fill) < 0) {
                int err = errno;
                VLOGE("Failed to write to dump file %s\n", path);
                return err != 0 ? -err : -EIO;
            }
            total += static_cast<long>(fill);
            fill = 0;
        }
        if (got < 1)
            break;
    }
    fsync(out.get());
    return total;
}
