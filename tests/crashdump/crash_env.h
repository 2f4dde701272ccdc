// Shared set-up of the crash-dump tests: a device root with the log root
// "/sdcard/logs/", a log capture, a collector state whose folder and
// semaphores are ready, and small file helpers.
#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/gbl_config.h"
#include "crashdump/ssr.h"
#include "platform/log.h"
#include "tests/support/full_disk.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"

#define RAMDUMP_FOLDER "/sdcard/logs//subsystem_ramdump"

class CrashEnv : public ::testing::Test {
  protected:
    void SetUp() override {
        memset(&gbl_config, 0, sizeof gbl_config);
        snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "%s", "/sdcard/logs/");
        root.mkdir("/dev");
        root.mkdir(RAMDUMP_FOLDER);
        st.folder = strdup(RAMDUMP_FOLDER);
        sem_init(&st.ext_modem_sem, 0, 0);
        sem_init(&st.qdss_sem, 0, 0);
        for (int i = 0; i < SSR_MAX_DEVICES; i++) {
            st.fds[i] = -1;
            st.index[i] = -1;
        }
        memset(ramdump_list, 0, sizeof ramdump_list);
    }
    void TearDown() override {
        for (int fd : st.fds) {
            if (fd >= 0)
                close(fd);
        }
        sem_destroy(&st.ext_modem_sem);
        sem_destroy(&st.qdss_sem);
        free(st.folder);
    }

    static int sem_value(sem_t *s) {
        int v = -1;
        sem_getvalue(s, &v);
        return v;
    }

    // Names in a device directory, sorted ("" entries of "." excluded).
    std::vector<std::string> entries(const std::string &device_dir) const {
        return list_dir(root.at(device_dir));
    }

    // The one entry of device_dir that begins with prefix, or "".
    std::string only_entry(const std::string &device_dir, const std::string &prefix) const {
        std::string found;
        int n = 0;
        for (const std::string &e : entries(device_dir)) {
            if (e.rfind(prefix, 0) == 0) {
                found = e;
                n++;
            }
        }
        return n == 1 ? found : "";
    }

    mode_t mode_of(const std::string &device_path) const {
        struct stat s {};
        stat(root.at(device_path).c_str(), &s);
        return s.st_mode & 07777;
    }

    TempRoot root;
    LogCapture log;
    ssr_state st;
};

// Bytes of the given size in a repeating pattern, starting with head.
inline std::string pattern(size_t size, const std::string &head = "") {
    std::string s = head;
    for (size_t i = s.size(); i < size; i++)
        s.push_back(static_cast<char>('a' + i % 23));
    s.resize(size);
    return s;
}

// True when thread t has ended (and is joined) within timeout_ms.
inline bool joins_within(pthread_t t, int timeout_ms) {
    bool joined = false;
    return wait_until([&] { return joined = joined || pthread_tryjoin_np(t, nullptr) == 0; },
                      timeout_ms);
}

// Runs routine(arg) on a joinable thread born with SIGUSR2 blocked, as the
// collector starts its side threads.
inline pthread_t start_blocked(void *(*routine)(void *), void *arg) {
    sigset_t usr2, old;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &usr2, &old);
    pthread_t t;
    pthread_create(&t, nullptr, routine, arg);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return t;
}
