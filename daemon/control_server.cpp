// Serving one connection of the control socket on the main thread.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/node_table.h"
#include "daemon/control_request.h"
#include "daemon/control_socket.h"
#include "daemon/startup.h"
#include "platform/log.h"

namespace {

// A client that connects and sends nothing would otherwise hold the only
// serving thread for ever; after this long its receive fails and it is closed.
constexpr time_t kReceiveTimeoutSec = 5;

ssize_t send_reply(int fd, const vorn_ctrl_msg *msg) {
    ssize_t n;
    // MSG_NOSIGNAL: a client gone before its reply must not end the daemon
    // through SIGPIPE; the failed send is logged instead.
    do {
        n = send(fd, msg, sizeof *msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
}

}  // namespace

void vornd_serve_connection(int listen_fd) {
    // Close-on-exec: shell commands started by workers must not inherit the
    // connection and keep it open after we close it.
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        VLOGE("Failed to accept socket.  return:%d  err:%s\n", fd, strerror(errno));
        vornd_free_nodes();
        exit(-1);
    }

    struct ucred cred;
    socklen_t cred_len = sizeof cred;
    int rc = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &cred_len);
    if (rc < 0) {
        int err = errno;
        close(fd);
        VLOGE("Failed to getsockopt. return: %d err:%s\n", rc, strerror(err));
        return;
    }

    struct timeval timeout = {kReceiveTimeoutSec, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    vorn_ctrl_msg msg;
    memset(&msg, 0, sizeof msg);
    ssize_t n;
    do {
        n = recv(fd, &msg, sizeof msg, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        int err = errno;
        close(fd);
        VLOGE("Failed to recv message from socket. return: %d err: %s\n", static_cast<int>(n),
              strerror(err));
        return;
    }

    vorn_reply_kind reply = vornd_handle_request(&msg, static_cast<int>(n));
    if (reply == VORN_REPLY_ACK) {
        VLOGD("Send %d bytes out", static_cast<int>(send_reply(fd, &msg)));
    } else if (reply == VORN_REPLY_MSG) {
        n = send_reply(fd, &msg);
        if (n < 0) {
            VLOGE("Failed to send message from socket. return: %d err: %s\n", static_cast<int>(n),
                  strerror(errno));
        } else {
            VLOGD("Send %d bytes out", static_cast<int>(n));
        }
    }
    close(fd);
}
