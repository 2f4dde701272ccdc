// One ramdump copied by the collector's per-device dump, timed. The source is
// "<root>/dev/<device>" (the simulated phone's ramdump device after a crash,
// a sparse file or a FIFO someone feeds), polled as the collector polls it;
// the dump goes to "<root>/sdcard/logs/subsystem_ramdump" and is removed
// afterwards. bench_ramdump.sh runs dd on the same source in the same run.
//
//   bench_ramdump ROOT DEVICE
// prints bytes=N and dump_ms=T.
#include <android/log.h>
#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "core/gbl_config.h"
#include "crashdump/ssr.h"
#include "platform/root.h"

namespace {

void silent_logger(const struct __android_logger_data *, const char *) {}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: bench_ramdump ROOT DEVICE\n");
        return 2;
    }
    __android_log_set_logger(silent_logger);
    vorn_set_root(argv[1]);
    snprintf(gbl_config.log_path, sizeof gbl_config.log_path, "/sdcard/logs/");
    std::string folder = "/sdcard/logs/" SSR_RAMDUMP_DIR;
    std::filesystem::create_directories(vorn_path(folder));

    ssr_state st;
    st.folder = strdup(folder.c_str());
    sem_init(&st.ext_modem_sem, 0, 0);
    sem_init(&st.qdss_sem, 0, 0);
    snprintf(ramdump_list[0], SSR_NAME_LEN, "%s", argv[2]);
    std::string dev = vorn_path(std::string("/dev/") + argv[2]);
    st.count = 1;
    st.fds[0] = open(dev.c_str(), O_RDONLY | O_CLOEXEC);
    st.index[0] = 0;
    st.pfds[0] = pollfd{st.fds[0], POLLIN, 0};
    if (st.fds[0] < 0) {
        perror(dev.c_str());
        return 1;
    }
    if (poll(st.pfds, 1, 30000) != 1 || !(st.pfds[0].revents & POLLIN)) {
        fprintf(stderr, "bench_ramdump: no dump waits on %s\n", dev.c_str());
        return 1;
    }

    auto t0 = std::chrono::steady_clock::now();
    long bytes = ssr_dump_device(0, &st, "-bench");
    auto t1 = std::chrono::steady_clock::now();
    close(st.fds[0]);
    std::filesystem::remove_all(vorn_path(folder));
    if (bytes < 0) {
        fprintf(stderr, "dump failed: %ld\n", bytes);
        return 1;
    }
    printf("bytes=%ld\n", bytes);
    printf("dump_ms=%.1f\n", std::chrono::duration<double, std::milli>(t1 - t0).count());
    free(st.folder);
    return 0;
}
