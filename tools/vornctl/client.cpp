// The socket side of vornctl: one connection per request, as the daemon
// serves them.
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/io.h"
#include "tools/vornctl/vornctl.h"

namespace {

constexpr int kDefaultReplyTimeoutSec = 10;

std::string socket_path(const ctl_options &o) {
    return o.socket.empty() ? ctl_host_path(o, "/dev/socket/vornd") : o.socket;
}

}  // namespace

std::string ctl_host_path(const ctl_options &o, const std::string &device_path) {
    std::string root = o.root;
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    return root + device_path;
}

int ctl_fail(int status, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("vornctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return status;
}

int ctl_request(const ctl_options &o, const vorn_ctrl_msg &msg, vorn_ctrl_msg *reply,
                uint8_t expect_type, std::string *why, pid_t *peer) {
    std::string path = socket_path(o);
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        *why = "cannot connect to " + path + ": path too long for a socket";
        return CTL_NO_CONNECT;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (fd.get() < 0 || connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        *why = "cannot connect to " + path + ": " + strerror(errno);
        return CTL_NO_CONNECT;
    }
    if (peer != nullptr) {
        // The credentials of the listening process: the daemon itself.
        struct ucred cred = {};
        socklen_t len = sizeof cred;
        *peer = getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 ? cred.pid : 0;
    }
    int timeout = o.timeout_sec > 0 ? o.timeout_sec : kDefaultReplyTimeoutSec;
    struct timeval tv = {timeout, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ssize_t n;
    do {
        n = send(fd.get(), &msg, sizeof msg, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof msg)) {
        *why = "cannot send the request to " + path + ": " + strerror(errno);
        return CTL_NO_REPLY;
    }

    // Read until the daemon closes: it closes every connection after at most
    // one reply.
    char buf[2 * VORN_MSG_SIZE];
    size_t got = 0;
    for (;;) {
        n = recv(fd.get(), buf + got, sizeof buf - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
        if (got == sizeof buf)
            break;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        *why = "no answer from the daemon within " + std::to_string(timeout) + " s";
        return CTL_NO_REPLY;
    }
    if (reply == nullptr)
        return CTL_OK;
    if (got < VORN_MSG_SIZE) {
        *why = got == 0 ? "the daemon closed the connection without a reply"
                        : "short reply (" + std::to_string(got) + " bytes)";
        return CTL_NO_REPLY;
    }
    memcpy(reply, buf, sizeof *reply);
    if (reply->msg_type != expect_type) {
        char t[64];
        snprintf(t, sizeof t, "unexpected reply type 0x%02x", reply->msg_type);
        *why = t;
        return CTL_NO_REPLY;
    }
    return CTL_OK;
}

int ctl_query_node(const ctl_options &o, const std::string &name, vorn_ctrl_msg *node,
                   std::string *why) {
    vorn_ctrl_msg q;
    vorn_msg_init(&q, VORN_MSG_QUERY_NODE);
    vorn_msg_put_text(q.logname, sizeof q.logname, name.c_str());
    int rc = ctl_request(o, q, node, VORN_MSG_REPLY | VORN_MSG_QUERY_NODE, why);
    if (rc == CTL_NO_REPLY && why->find("without a reply") != std::string::npos)
        *why = "unknown node " + name + " (the daemon closed the connection without a reply)";
    return rc;
}

int ctl_query_global(const ctl_options &o, ctl_global *g, std::string *why) {
    vorn_ctrl_msg q, r;
    vorn_msg_init(&q, VORN_MSG_GET_GLOBAL);
    int rc = ctl_request(o, q, &r, VORN_MSG_REPLY, why, &g->daemon_pid);
    if (rc != CTL_OK)
        return rc;
    const auto *b = reinterpret_cast<const uint8_t *>(&r);
    g->enable = b[VORN_MSG_GBL_ENABLE_OFF];
    g->loglevel = b[VORN_MSG_GBL_LOGLEVEL_OFF];
    g->time = vorn_msg_get_i32(b, VORN_MSG_GBL_TIME_OFF);
    g->size = vorn_msg_get_i32(b, VORN_MSG_GBL_SIZE_OFF);
    char path[VORN_MSG_GBL_LOG_PATH_LEN + 1];
    vorn_msg_get_text(path, b + VORN_MSG_GBL_LOG_PATH_OFF, VORN_MSG_GBL_LOG_PATH_LEN);
    g->log_path = path;
    return CTL_OK;
}

ctl_node_view ctl_view_of(const vorn_ctrl_msg &m) {
    char name[sizeof m.logname + 1], mask[sizeof m.mask + 1];
    vorn_msg_get_text(name, m.logname, sizeof m.logname);
    vorn_msg_get_text(mask, m.mask, sizeof m.mask);
    return {m.logid, m.enable, m.loglevel, m.time, m.size, name, mask};
}

long long ctl_now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

std::string ctl_json_string(const std::string &s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string ctl_clean_path(std::string path) {
    std::string out;
    for (char c : path) {
        if (c != '/' || out.empty() || out.back() != '/')
            out += c;
    }
    return out;
}
