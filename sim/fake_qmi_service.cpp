#include "sim/fake_qmi_service.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

std::vector<uint8_t> qmi_answer_bytes(uint16_t txn, uint16_t msg_id, uint16_t result,
                                      uint16_t error) {
    auto lo = [](uint16_t v) { return static_cast<uint8_t>(v); };
    auto hi = [](uint16_t v) { return static_cast<uint8_t>(v >> 8); };
    // Header (type 2: response), then the result TLV 0x02 of 4 bytes.
    return {2,    lo(txn), hi(txn), lo(msg_id), hi(msg_id), 7,         0,
            0x02, 4,       0,       lo(result), hi(result), lo(error), hi(error)};
}

FakeQmiService::FakeQmiService(const std::string &root_dir, uint32_t instance) {
    std::string dir = root_dir + "/dev";
    ::mkdir(dir.c_str(), 0755);
    dir += "/qrtr";
    ::mkdir(dir.c_str(), 0755);
    path_ = dir + "/51." + std::to_string(instance);
    unlink(path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
    bind(listen_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    listen(listen_fd_, 4);
    if (pipe(stop_pipe_) != 0)
        stop_pipe_[0] = stop_pipe_[1] = -1;
    thread_ = std::thread([this] { serve(); });
}

FakeQmiService::~FakeQmiService() {
    if (write(stop_pipe_[1], "x", 1) != 1) {
    }
    thread_.join();
    close(listen_fd_);
    close(stop_pipe_[0]);
    close(stop_pipe_[1]);
    unlink(path_.c_str());
}

std::vector<std::vector<uint8_t>> FakeQmiService::requests() const {
    std::lock_guard<std::mutex> g(mutex_);
    return requests_;
}

void FakeQmiService::serve() {
    std::vector<int> conns;
    for (;;) {
        std::vector<pollfd> fds = {{stop_pipe_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        for (int fd : conns)
            fds.push_back({fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0)
            continue;
        if (fds[0].revents)
            break;
        if (fds[1].revents & POLLIN) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                conns.push_back(fd);
                connections_++;
            }
        }
        for (size_t i = 2; i < fds.size(); i++) {
            if (!fds[i].revents)
                continue;
            uint8_t buf[512];
            ssize_t n = recv(fds[i].fd, buf, sizeof buf, 0);
            if (n > 0) {
                std::lock_guard<std::mutex> g(mutex_);
                requests_.emplace_back(buf, buf + n);
            }
            if (n > 0 && reply_ != Reply::kHangUp) {
                answer(fds[i].fd, buf, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                std::erase(conns, fds[i].fd);
            }
        }
    }
    for (int fd : conns)
        close(fd);
}

void FakeQmiService::answer(int fd, const uint8_t *req, size_t len) {
    if (len < 7)
        return;
    uint16_t txn = static_cast<uint16_t>(req[1] | (req[2] << 8));
    uint16_t id = static_cast<uint16_t>(req[3] | (req[4] << 8));
    Reply reply = reply_;
    std::vector<uint8_t> out;
    if (reply == Reply::kStaleThenAnswer || reply == Reply::kStaleOnly) {
        out = qmi_answer_bytes(static_cast<uint16_t>(txn + 100), id, 1, 7);
        send(fd, out.data(), out.size(), MSG_NOSIGNAL);
        out.clear();
    }
    if (reply == Reply::kSuccess || reply == Reply::kStaleThenAnswer)
        out = qmi_answer_bytes(txn, id, 0, 0);
    else if (reply == Reply::kFailure)
        out = qmi_answer_bytes(txn, id, 1, error_);
    else if (reply == Reply::kGarbage)
        out = {'g', 'a', 'r', 'b', 'a', 'g', 'e', '!', '!', '!'};
    else if (reply == Reply::kShort)
        out = {2, req[1], req[2]};
    if (!out.empty())
        send(fd, out.data(), out.size(), MSG_NOSIGNAL);
}
