// QMI client connections: one socket per handle, either a QRTR datagram
// socket bound to the service's node and port, or (on a host) a Unix
// SOCK_SEQPACKET connection to <root>/dev/qrtr/<service>.<instance>.
#include "platform/qmi_transport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "platform/log.h"
#include "platform/root.h"

struct qmi_client_struct {
    int fd;
    bool qrtr;      // QRTR datagrams rather than a Unix connection
    uint32_t node;  // the service's QRTR address
    uint32_t port;
    uint16_t last_txn;
    qmi_idl_service_object_type service;
};

namespace {

// Large enough for any answer this client accepts; longer ones are malformed.
constexpr size_t kRecvBufLen = 4096;

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits for fd to become readable until deadline; 1 readable, 0 timed out,
// -1 error.
int wait_readable(int fd, int64_t deadline) {
    for (;;) {
        int64_t left = deadline - now_ms();
        if (left <= 0)
            return 0;
        pollfd pfd = {fd, POLLIN, 0};
        int rc = poll(&pfd, 1, static_cast<int>(left));
        if (rc > 0)
            return 1;
        if (rc == 0)
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

qmi_client_error_type connect_unix(const std::string &path, int *out_fd) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return QMI_XPORT_ERR;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return QMI_XPORT_ERR;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        VLOGE("qmi: connect %s failed (%s)\n", path.c_str(), strerror(errno));
        close(fd);
        return QMI_SERVICE_ERR;
    }
    *out_fd = fd;
    return QMI_NO_ERR;
}

// Asks the QRTR name service for the service's servers and waits for the one
// at the instance.
qmi_client_error_type lookup_qrtr(uint32_t service, uint32_t instance, uint32_t timeout,
                                  qmi_client_struct *client) {
    int fd = socket(AF_QIPCRTR, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        VLOGE("qmi: no QRTR socket (%s)\n", strerror(errno));
        return QMI_XPORT_ERR;
    }
    // Version and instance 0 list every server of the service.
    if (qrtr_new_lookup(fd, service, 0, 0) < 0) {
        close(fd);
        return QMI_XPORT_ERR;
    }
    int64_t deadline = now_ms() + timeout;
    char buf[kRecvBufLen];
    for (;;) {
        int ready = wait_readable(fd, deadline);
        if (ready <= 0) {
            close(fd);
            return ready == 0 ? QMI_TIMEOUT_ERR : QMI_XPORT_ERR;
        }
        uint32_t node = 0, port = 0;
        int n = qrtr_recvfrom(fd, buf, sizeof buf, &node, &port);
        if (n < 0)
            continue;
        sockaddr_qrtr sq = {};
        sq.sq_family = AF_QIPCRTR;
        sq.sq_node = node;
        sq.sq_port = port;
        qrtr_packet pkt = {};
        if (qrtr_decode(&pkt, buf, static_cast<size_t>(n), &sq) < 0)
            continue;
        if (pkt.type == QRTR_TYPE_NEW_SERVER && pkt.service == service &&
            pkt.instance == instance && (pkt.node != 0 || pkt.port != 0)) {
            client->fd = fd;
            client->qrtr = true;
            client->node = pkt.node;
            client->port = pkt.port;
            qrtr_remove_lookup(fd, service, 0, 0);
            return QMI_NO_ERR;
        }
    }
}

const qmi_idl_message_desc *find_message(qmi_idl_service_object_type svc, int kind,
                                         unsigned int msg_id, uint16_t *max_len) {
    const qmi_idl_service_message_table_entry *table = svc->msgid_to_msg[kind];
    const qmi_idl_type_table_object *types = svc->p_type_table;
    if (table == nullptr || types == nullptr || types->message_table == nullptr)
        return nullptr;
    for (uint16_t i = 0; i < svc->n_msgs[kind]; i++) {
        if (table[i].qmi_message_id != msg_id)
            continue;
        if (table[i].message_table_message_id >= types->n_messages)
            return nullptr;
        *max_len = table[i].max_msg_len;
        return &types->message_table[table[i].message_table_message_id];
    }
    return nullptr;
}

// Receives one message into buf; returns its length (data points at the QMI
// message), 0 when the datagram is not for this client, or a client error.
int receive_one(qmi_client_struct *c, uint8_t *buf, size_t len, uint8_t **data, size_t *data_len) {
    if (!c->qrtr) {
        ssize_t n = recv(c->fd, buf, len, MSG_TRUNC);
        if (n == 0)
            return QMI_SERVICE_ERR;
        if (n < 0)
            return errno == EINTR || errno == EAGAIN ? 0 : QMI_XPORT_ERR;
        if (static_cast<size_t>(n) > len)
            return QMI_DECODE_ERR;
        *data = buf;
        *data_len = static_cast<size_t>(n);
        return static_cast<int>(n);
    }
    uint32_t node = 0, port = 0;
    int n = qrtr_recvfrom(c->fd, buf, static_cast<unsigned int>(len), &node, &port);
    if (n < 0)
        return 0;
    sockaddr_qrtr sq = {};
    sq.sq_family = AF_QIPCRTR;
    sq.sq_node = node;
    sq.sq_port = port;
    qrtr_packet pkt = {};
    if (qrtr_decode(&pkt, buf, static_cast<size_t>(n), &sq) < 0)
        return 0;
    if ((pkt.type == QRTR_TYPE_DEL_SERVER || pkt.type == QRTR_TYPE_BYE) && pkt.node == c->node)
        return QMI_SERVICE_ERR;
    if (pkt.type != QRTR_TYPE_DATA || node != c->node || port != c->port || pkt.data_len == 0)
        return 0;
    *data = static_cast<uint8_t *>(pkt.data);
    *data_len = pkt.data_len;
    return static_cast<int>(pkt.data_len);
}

}  // namespace

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                               uint32_t instance_id, qmi_client_ind_cb ind_cb,
                                               void *, qmi_client_os_params *, uint32_t timeout,
                                               qmi_client_type *user_handle) {
    if (service_obj == nullptr || user_handle == nullptr || ind_cb != nullptr)
        return QMI_INTERNAL_ERR;
    *user_handle = nullptr;
    auto *client = new (std::nothrow) qmi_client_struct{-1, false, 0, 0, 0, service_obj};
    if (client == nullptr)
        return QMI_INTERNAL_ERR;

    char dev[64];
    snprintf(dev, sizeof dev, "/dev/qrtr/%u.%u", service_obj->service_id, instance_id);
    std::string path = vorn_path(dev);
    struct stat st;
    qmi_client_error_type rc;
    if (stat(path.c_str(), &st) == 0)
        rc = connect_unix(path, &client->fd);
    else
        rc = lookup_qrtr(service_obj->service_id, instance_id, timeout, client);
    if (rc != QMI_NO_ERR) {
        delete client;
        return rc;
    }
    *user_handle = client;
    return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type c, unsigned int msg_id,
                                               void *req_c_struct, unsigned int req_c_struct_len,
                                               void *resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs) {
    if (c == nullptr || c->fd < 0)
        return QMI_INVALID_HANDLE;
    uint16_t req_max = 0, resp_max = 0;
    const qmi_idl_message_desc *req = find_message(c->service, QMI_IDL_REQUEST, msg_id, &req_max);
    const qmi_idl_message_desc *resp =
        find_message(c->service, QMI_IDL_RESPONSE, msg_id, &resp_max);
    if (req == nullptr || resp == nullptr)
        return QMI_INVALID_MSG_ID;
    if (req->ei == nullptr || resp->ei == nullptr)
        return QMI_ENCODE_ERR;  // a message whose layout this client does not carry
    if (req_c_struct == nullptr || resp_c_struct == nullptr ||
        req_c_struct_len != req->c_struct_len || resp_c_struct_len != resp->c_struct_len)
        return QMI_INVALID_LENGTH;

    uint8_t out[QMI_HEADER_LEN + 512];
    if (req_max > sizeof out - QMI_HEADER_LEN)
        return QMI_ENCODE_ERR;
    c->last_txn = static_cast<uint16_t>(c->last_txn + 1);
    if (c->last_txn == 0)
        c->last_txn = 1;
    uint16_t txn = c->last_txn;
    qrtr_packet pkt = {};
    pkt.data = out;
    pkt.data_len = QMI_HEADER_LEN + req_max;
    ssize_t n =
        qmi_encode_message(&pkt, QMI_REQUEST, static_cast<int>(msg_id), txn, req_c_struct, req->ei);
    if (n < QMI_HEADER_LEN)
        return QMI_ENCODE_ERR;
    ssize_t sent = c->qrtr ? qrtr_sendto(c->fd, c->node, c->port, out, static_cast<unsigned>(n))
                           : send(c->fd, out, static_cast<size_t>(n), MSG_NOSIGNAL);
    if (c->qrtr ? sent < 0 : sent != n)
        return QMI_XPORT_ERR;

    int64_t deadline = now_ms() + timeout_msecs;
    uint8_t in[kRecvBufLen];
    for (;;) {
        int ready = wait_readable(c->fd, deadline);
        if (ready == 0)
            return QMI_TIMEOUT_ERR;
        if (ready < 0)
            return QMI_XPORT_ERR;
        uint8_t *data = nullptr;
        size_t len = 0;
        int got = receive_one(c, in, sizeof in, &data, &len);
        if (got < 0)
            return got;
        if (got == 0)
            continue;
        qmi_msg_header hdr;
        if (qmi_check_message(data, len, &hdr) != 0)
            return QMI_DECODE_ERR;
        if (hdr.type == QMI_INDICATION)
            continue;
        if (hdr.type != QMI_RESPONSE)
            return QMI_DECODE_ERR;
        if (hdr.txn != txn)
            continue;  // the late answer of an earlier, timed-out request
        if (hdr.msg_id != msg_id || qmi_find_tlv(data, len, QMI_RESPONSE_TLV_TYPE) != 4 ||
            qmi_check_layout(data, len, resp->ei) != 0)
            return QMI_DECODE_ERR;
        memset(resp_c_struct, 0, resp_c_struct_len);
        qrtr_packet rp = {};
        rp.type = QRTR_TYPE_DATA;
        rp.data = data;
        rp.data_len = len;
        unsigned int rtxn = 0;
        if (qmi_decode_message(resp_c_struct, &rtxn, &rp, QMI_RESPONSE, static_cast<int>(msg_id),
                               resp->ei) < 0)
            return QMI_DECODE_ERR;
        return QMI_NO_ERR;
    }
}

qmi_client_error_type qmi_client_release(qmi_client_type c) {
    if (c == nullptr)
        return QMI_INVALID_HANDLE;
    int rc = c->fd >= 0 ? close(c->fd) : 0;
    delete c;
    return rc == 0 ? QMI_NO_ERR : QMI_XPORT_ERR;
}
