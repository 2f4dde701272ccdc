// The "ssr" node's work thread: finds the ramdump devices in /dev, polls them
// all and copies each dump into the ramdump folder, with the sink-dump,
// uevent and external-modem threads running beside it.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "capture/worker_util.h"
#include "core/gbl_config.h"
#include "crashdump/crashdump.h"
#include "crashdump/ssr.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"

namespace {

// A side thread of the collector: joinable, so the tear-down can wait for it.
struct side_thread {
    pthread_t id{};
    bool started = false;
};

void no_op(int) {}

bool exists(const char *device_path) {
    return access(vorn_path(device_path).c_str(), F_OK) == 0;
}

// True when the kernel keeps ramdumps (enable_ramdumps reads "1").
bool ramdumps_enabled() {
    bool on = false;
    unique_fd f(open(vorn_path(SSR_ENABLE_RAMDUMPS).c_str(), O_RDONLY | O_CLOEXEC));
    char setting[3] = {};
    if (!f.valid()) {
        VLOGE("Unable to open %s\n", SSR_ENABLE_RAMDUMPS);
    } else if (read_retry(f.get(), setting, 2) < 1) {
        VLOGE("Unable to read %s\n", SSR_ENABLE_RAMDUMPS);
    } else if (setting[0] == '1') {
        on = true;
    } else if (setting[0] != '0') {
        VLOGE("Invalid ramdump setting %s\n", setting);
    }
    if (!on)
        VLOGE("Ramdump is not enable\n");
    return on;
}

// Fills ramdump_list with the "ramdump_" entries of /dev; 0 or -1.
int find_devices(ssr_state *st) {
    memset(ramdump_list, 0, sizeof ramdump_list);
    st->count = 0;
    unique_dir dir(opendir(vorn_path("/dev").c_str()));
    if (!dir) {
        VLOGE("Unable to open %s\n", "/dev");
        return -1;
    }
    while (struct dirent *e = readdir(dir.get())) {
        if (strncmp(e->d_name, "ramdump_", 8) != 0)
            continue;
        if (st->count == SSR_MAX_DEVICES) {
            VLOGE("Exceed max pil number\n");
            st->count = 0;
            return -1;
        }
        // A truncating copy that always terminates.
        char *slot = ramdump_list[st->count++];
        size_t n = strnlen(e->d_name, SSR_NAME_LEN - 1);
        memcpy(slot, e->d_name, n);
        slot[n] = '\0';
    }
    return 0;
}

void close_devices(ssr_state *st) {
    for (int &fd : st->fds) {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
}

// Opens every device found; 0, or -1 with none left open.
int open_devices(ssr_state *st) {
    for (int i = 0; i < SSR_MAX_DEVICES; i++) {
        st->fds[i] = -1;
        st->index[i] = -1;
    }
    for (int i = 0; i < st->count; i++) {
        std::string dev = std::string("/dev/") + ramdump_list[i];
        int fd = open(vorn_path(dev).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            VLOGE("Unable to open %s\n", dev.c_str());
            close_devices(st);
            return -1;
        }
        st->fds[i] = fd;
        st->index[i] = i;
    }
    for (int i = 0; i < st->count; i++)
        st->pfds[i] = pollfd{st->fds[i], POLLIN, 0};
    return 0;
}

// Builds the ramdump folder and makes sure it exists; 0 or -1.
int make_folder(ssr_state *st) {
    st->folder = static_cast<char *>(malloc(SSR_PATH_LEN));
    if (st->folder == nullptr)
        return -1;
    char root[VORN_LOG_PATH_LEN];
    copy_log_root(root);
    snprintf(st->folder, SSR_PATH_LEN, "%s/%s", root, SSR_RAMDUMP_DIR);
    VLOGD("SSR: subsystem ramdump start, folder : %s\n", st->folder);
    if (!exists(st->folder)) {
        VLOGI("Attemping to create %s\n", st->folder);
        if (ssr_make_dir(st->folder) < 0)
            VLOGE("Unable to create %s\n", st->folder);
    }
    return 0;
}

int start_side(side_thread *t, void *(*routine)(void *), ssr_state *st, const char *name,
               const char *create_failed, const char *rename_failed) {
    if (pthread_create(&t->id, nullptr, routine, st) != 0) {
        VLOGE("%s", create_failed);
        return -1;
    }
    t->started = true;
    if (pthread_setname_np(t->id, name) != 0) {
        VLOGE("%s", rename_failed);
        return -1;
    }
    return 0;
}

// Starts the side threads; -1 as soon as one cannot be started.
int start_side_threads(ssr_state *st, side_thread *uevent, side_thread *ext, side_thread *qdss) {
    // Thread names hold 15 characters: the uevent monitor's is cut to fit.
    if (exists(SSR_MDM_DEV)) {
        if (start_side(uevent, uevent_monitor_thread, st, "vornd_ssr_ueven",
                       "Creating uevent thread failed\n",
                       "Failed to rename thread uevent_mon\n") != 0)
            return -1;
        st->flags.fetch_or(SSR_UEVENT_MON);
    }
    if (exists(SSR_QSC_SOCKET))
        st->flags.fetch_or(SSR_QSC_PRESENT);
    if (st->flags.load() & (SSR_UEVENT_MON | SSR_QSC_PRESENT)) {
        if (start_side(ext, ext_modem_thread, st, "vornd_ssr_ext_m",
                       "Creating MDM monitor thread failed\n",
                       "Failed to rename thread ext_modem_mon\n") != 0)
            return -1;
    }
    return start_side(qdss, qdss_sink_thread, st, "vornd_ssr_qdss",
                      "Creating qdss monitor thread failed\n",
                      "Failed to rename thread qdss_mon\n");
}

void poll_devices(ssr_state *st) {
    for (;;) {
        int r = poll(st->pfds, static_cast<nfds_t>(st->count), -1);
        if (r < 0) {
            VLOGE("Polling ramdump failed: %d\n", r);
            return;
        }
        char stamp[SSR_STAMP_LEN];
        if (ssr_timestamp(stamp, sizeof stamp) == nullptr)
            return;
        for (int i = 0; i < st->count; i++) {
            if (ssr_dump_device(i, st, stamp) < 0) {
                VLOGE("Generating %s failed\n", ramdump_list[st->index[i]]);
                return;
            }
            // A device that reports only an error or a hang-up would wake
            // the poll at once for ever: it is polled no more.
            short ev = st->pfds[i].revents;
            if ((ev & (POLLERR | POLLHUP | POLLNVAL)) && !(ev & POLLIN)) {
                VLOGE("Ramdump device %s hung up\n", ramdump_list[st->index[i]]);
                st->pfds[i].fd = -1;
            }
        }
    }
}

void tear_down(ssr_state *st, side_thread *uevent, side_thread *ext, side_thread *qdss) {
    // The semaphore waiters see the stop flag once posted; the uevent monitor
    // is woken in its poll by the signal.
    st->stopping.store(true);
    sem_post(&st->qdss_sem);
    sem_post(&st->ext_modem_sem);
    for (side_thread *t : {qdss, ext, uevent}) {
        if (t->started)
            ssr_stop_thread(t->id, SIGUSR2);
        t->started = false;
    }
    close_devices(st);
    sem_destroy(&st->ext_modem_sem);
    sem_destroy(&st->qdss_sem);
    free(st->folder);
    st->folder = nullptr;
    st->flags.store(0);
}

}  // namespace

void ssr_collect(ssr_state *st) {
    if (!ramdumps_enabled())
        return;
    if (find_devices(st) != 0) {
        VLOGE("Failed to find pil ramdump\n");
        return;
    }
    if (make_folder(st) != 0)
        return;
    if (sem_init(&st->ext_modem_sem, 0, 0) != 0) {
        VLOGE("Failed to initialize ramdump\n");
        free(st->folder);
        st->folder = nullptr;
        return;
    }
    if (sem_init(&st->qdss_sem, 0, 0) != 0) {
        VLOGE("Failed to initialize ramdump\n");
        sem_destroy(&st->ext_modem_sem);
        free(st->folder);
        st->folder = nullptr;
        return;
    }
    if (open_devices(st) != 0) {
        VLOGE("Failed to open ramdump devices\n");
        sem_destroy(&st->ext_modem_sem);
        sem_destroy(&st->qdss_sem);
        VLOGE("Failed to initialize ramdump\n");
        free(st->folder);
        st->folder = nullptr;
        return;
    }
    st->flags.store(0);
    st->stopping.store(false);

    // SIGUSR2 stays blocked here and in the side threads from birth; the
    // uevent monitor takes it only inside its poll, so a stop sent before
    // that poll is not lost.
    ssr_install_stop_handler();
    sigset_t usr2;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &usr2, nullptr);

    side_thread uevent, ext, qdss;
    if (start_side_threads(st, &uevent, &ext, &qdss) == 0)
        poll_devices(st);
    tear_down(st, &uevent, &ext, &qdss);
}

void ssr_install_stop_handler() {
    struct sigaction sa {};
    sa.sa_handler = no_op;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: the monitor's poll must return
    sigaction(SIGUSR2, &sa, nullptr);
}

void *ssr_thread(void *arg) {
    auto *node = static_cast<vorn_node *>(arg);
    if (node == nullptr)
        return reinterpret_cast<void *>(-1L);
    {
        vorn_node_guard g(node);
        ssr_enable(node, nullptr);
        node->worker_thread = static_cast<uint64_t>(pthread_self());
    }
    install_selfsig_handler();

    ssr_state st;
    ssr_collect(&st);

    // The thread ends: the next enable starts a new one.
    vorn_node_guard g(node);
    node->worker_thread = 0;
    return nullptr;
}
