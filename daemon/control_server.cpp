// Serving the control socket on the main thread: every connection carries one
// request. Connections are served side by side from one poll loop, so a
// client that connects and stays silent never delays another; requests are
// handled in the order they arrive whole.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "core/node_table.h"
#include "daemon/control_request.h"
#include "daemon/control_socket.h"
#include "platform/io.h"
#include "platform/log.h"

namespace {

// A client that connects and sends nothing is closed after this long.
constexpr long kReceiveTimeoutMs = 5000;
// Connections held open at once. At the limit a new connection closes the
// oldest held one: the listener never rests, so silent clients cannot keep
// a query waiting.
constexpr size_t kMaxClients = 64;

struct client {
    unique_fd fd;
    long deadline_ms;
};

long now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

ssize_t send_reply(int fd, const vorn_ctrl_msg *msg) {
    ssize_t n;
    // MSG_NOSIGNAL: a client gone before its reply must not end the daemon
    // through SIGPIPE; the failed send is logged instead.
    do {
        n = send(fd, msg, sizeof *msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Accepts one connection; false when there was none to take after all.
// The new connection is then the last of clients.
bool accept_client(int listen_fd, std::vector<client> *clients) {
    // Close-on-exec: shell commands started by workers must not inherit the
    // connection and keep it open after we close it. Non-blocking: a client
    // that connects and sends nothing must not hold up the others.
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED)
            return false;
        VLOGE("Failed to accept socket.  return:%d  err:%s\n", fd, strerror(errno));
        vornd_free_nodes();
        exit(-1);
    }
    // The peer's credentials were never looked at: any process that can open
    // the socket (mode 0666) is served, so they are not asked for either.
    clients->push_back({unique_fd(fd), now_ms() + kReceiveTimeoutMs});
    if (clients->size() > kMaxClients) {
        // Every held connection is silent (one that sent is served at once),
        // and the oldest has had the longest to speak.
        clients->erase(clients->begin());
        VLOGE("Closed the oldest silent connection: %zu connections held\n", kMaxClients);
    }
    return true;
}

// Reads the client's one request and answers it. False while the request
// has not arrived yet.
bool serve_client(client &c) {
    vorn_ctrl_msg msg;
    memset(&msg, 0, sizeof msg);
    ssize_t n;
    do {
        n = recv(c.fd.get(), &msg, sizeof msg, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return false;
    if (n < 0) {
        int err = errno;
        c.fd.reset();
        VLOGE("Failed to recv message from socket. return: %d err: %s\n", static_cast<int>(n),
              strerror(err));
        return true;
    }

    // The lines of a request answered at once go to stderr in one write,
    // before the close that tells the client it is done. Others (the agent,
    // a log path change) may take long, and their lines show as they come.
    std::optional<vorn_log_batch> batch;
    if (msg.msg_type == VORN_MSG_QUERY_NODE || msg.msg_type == VORN_MSG_SET_NODE ||
        msg.msg_type == VORN_MSG_GET_GLOBAL)
        batch.emplace();
    vorn_reply_kind reply = vornd_handle_request(&msg, static_cast<int>(n));
    if (reply == VORN_REPLY_ACK) {
        VLOGD("Send %d bytes out", static_cast<int>(send_reply(c.fd.get(), &msg)));
    } else if (reply == VORN_REPLY_MSG) {
        n = send_reply(c.fd.get(), &msg);
        if (n < 0) {
            VLOGE("Failed to send message from socket. return: %d err: %s\n", static_cast<int>(n),
                  strerror(errno));
        } else {
            VLOGD("Send %d bytes out", static_cast<int>(n));
        }
    }
    batch.reset();
    c.fd.reset();
    return true;
}

}  // namespace

void vornd_serve(int listen_fd) {
    // While no client is held the loop waits in accept itself, one system
    // call per connection; the listening socket blocks, so it is accepted
    // from only when nothing else waits or poll has found it readable.
    int flags = fcntl(listen_fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK))
        fcntl(listen_fd, F_SETFL, flags & ~O_NONBLOCK);
    std::vector<client> clients;
    std::vector<struct pollfd> fds;
    for (;;) {
        if (clients.empty()) {
            // A client sends its request right after its connect, so it is
            // usually here already: serve it without a round of poll.
            if (accept_client(listen_fd, &clients) && serve_client(clients.back()))
                clients.pop_back();
            continue;
        }
        fds.clear();
        fds.push_back({listen_fd, POLLIN, 0});
        long now = now_ms(), wait = -1;
        for (const client &c : clients) {
            fds.push_back({c.fd.get(), POLLIN, 0});
            long left = c.deadline_ms - now;
            wait = wait < 0 || left < wait ? (left > 0 ? left : 0) : wait;
        }
        int ready = poll(fds.data(), fds.size(), static_cast<int>(wait));
        if (ready < 0 && errno != EINTR) {
            VLOGE("Failed to accept socket.  return:%d  err:%s\n", ready, strerror(errno));
            vornd_free_nodes();
            exit(-1);
        }
        now = now_ms();
        size_t served = clients.size();
        for (size_t i = 0; i < served; i++) {
            client &c = clients[i];
            if (ready > 0 && (fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR)) && serve_client(c))
                continue;
            if (c.fd.valid() && now >= c.deadline_ms) {
                c.fd.reset();
                VLOGE("Failed to recv message from socket. return: %d err: %s\n", -1,
                      strerror(EAGAIN));
            }
        }
        std::erase_if(clients, [](const client &c) { return !c.fd.valid(); });
        // Anything on the listening socket (an error too) is for accept to
        // report. One accept per poll: a second one could block.
        if (ready > 0 && fds[0].revents != 0 && accept_client(listen_fd, &clients) &&
            serve_client(clients.back()))
            clients.pop_back();
    }
}
