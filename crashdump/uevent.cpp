// The uevent monitor: the removal of the external modem's diag_bridge device
// marks an MDM dump as pending, its return wakes the external-modem collector.
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "crashdump/ssr.h"
#include "platform/io.h"
#include "platform/log.h"

#define UEVENT_BUF_LEN 1024
#define UEVENT_CUT 36  // the length of the removal text below
#define UEVENT_REMOVE "remove@/devices/platform/diag_bridge"
#define UEVENT_ADD "add@/devices/platform/diag_bridge"

static_assert(sizeof(UEVENT_REMOVE) - 1 == UEVENT_CUT);

namespace {

// Receives one message, cut after its 36th character.
int receive_cut(int fd, char *buf, ssr_state *st) {
    int len = uevent_recv(fd, buf, UEVENT_BUF_LEN, st);
    if (len >= UEVENT_CUT)
        buf[UEVENT_CUT] = '\0';
    return len;
}

}  // namespace

int uevent_open_socket() {
    int fd = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) {
        VLOGE("Creating netlink socket failed\n");
        return -1;
    }
    int size = UEVENT_BUF_LEN;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = static_cast<__u32>(getpid());
    addr.nl_groups = 0xffffffff;
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) < 0) {
        VLOGE("Binding to netlink socket failed\n");
        close(fd);
        return -1;
    }
    return fd;
}

int uevent_recv(int fd, char *buf, size_t size, const ssr_state *st) {
    // SIGUSR2 is blocked in this thread except inside the wait, so a stop
    // that came before the wait still ends it.
    sigset_t wait_mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &wait_mask);
    sigdelset(&wait_mask, SIGUSR2);
    for (;;) {
        if (st->stopping.load())
            return -1;
        pollfd pfd{fd, POLLIN, 0};
        int r = ppoll(&pfd, 1, nullptr, &wait_mask);
        if (r <= 0)
            continue;  // interrupted: the stop flag decides
        // Data is read even when an error is flagged beside it: the receive
        // is also what clears a netlink overrun, which would otherwise wake
        // the poll for ever.
        if ((pfd.revents & (POLLIN | POLLERR)) == 0)
            return -1;  // hung up or not a socket: nothing will come
        ssize_t len = recvfrom(fd, buf, size - 1, MSG_DONTWAIT, nullptr, nullptr);
        if (len <= 0) {
            if (len < 0 && errno == EAGAIN)
                continue;
            if (len == 0 && (pfd.revents & POLLHUP))
                return -1;  // a stream peer that has gone
            VLOGE("Receiving uevent failed\n");
            continue;
        }
        buf[len] = '\0';
        return static_cast<int>(len);
    }
}

void uevent_monitor_loop(int fd, ssr_state *st) {
    char buf[UEVENT_BUF_LEN];
    for (;;) {
        if (receive_cut(fd, buf, st) < 0)
            return;
        while (strstr(buf, UEVENT_REMOVE) != nullptr) {
            st->flags.fetch_or(SSR_MDM_PENDING);
            if (receive_cut(fd, buf, st) < 0)
                return;
        }
        if (strstr(buf, UEVENT_ADD) != nullptr)
            sem_post(&st->ext_modem_sem);
    }
}

void *uevent_monitor_thread(void *arg) {
    auto *st = static_cast<ssr_state *>(arg);
    unique_fd fd(uevent_open_socket());
    if (!fd.valid()) {
        VLOGE("Failed to initialize uevent\n");
        return nullptr;
    }
    uevent_monitor_loop(fd.get(), st);
    return nullptr;
}
