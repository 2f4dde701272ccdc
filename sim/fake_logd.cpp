#include "sim/fake_logd.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

std::string record(log_id_t lid, std::string_view payload, int32_t pid, uint32_t sec,
                   uint32_t nsec) {
    logger_entry e{};
    e.len = static_cast<uint16_t>(payload.size());
    e.hdr_size = sizeof e;
    e.pid = pid;
    e.tid = static_cast<uint32_t>(pid);
    e.sec = sec;
    e.nsec = nsec;
    e.lid = lid;
    std::string out(reinterpret_cast<const char *>(&e), sizeof e);
    out.append(payload);
    return out;
}

}  // namespace

std::string FakeLogd::text_entry(log_id_t lid, int prio, std::string_view tag, std::string_view msg,
                                 int32_t pid, uint32_t sec, uint32_t nsec) {
    std::string payload(1, static_cast<char>(prio));
    payload.append(tag).push_back('\0');
    payload.append(msg).push_back('\0');
    return record(lid, payload, pid, sec, nsec);
}

std::string FakeLogd::event_entry(uint32_t tag, std::string_view data, int32_t pid, uint32_t sec,
                                  uint32_t nsec) {
    std::string payload(reinterpret_cast<const char *>(&tag), sizeof tag);
    payload.append(data);
    return record(LOG_ID_EVENTS, payload, pid, sec, nsec);
}

FakeLogd::FakeLogd(std::string socket_path) : path_(std::move(socket_path)) {
    if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0)
        wake_[0] = wake_[1] = -1;
    listen_now();
    thread_ = std::thread([this] { serve(); });
}

FakeLogd::~FakeLogd() {
    {
        std::unique_lock<std::mutex> g(mutex_);
        request_ = Request::quit;
    }
    (void)!write(wake_[1], "q", 1);
    thread_.join();
    drop_reader();
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        unlink(path_.c_str());
    }
    close(wake_[0]);
    close(wake_[1]);
}

bool FakeLogd::listen_now() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path_.size() >= sizeof addr.sun_path)
        return false;
    memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
    unlink(path_.c_str());
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0) {
        close(fd);
        return false;
    }
    listen_fd_ = fd;
    return true;
}

void FakeLogd::drop_reader() {
    if (reader_fd_ >= 0)
        close(reader_fd_);
    reader_fd_ = -1;
}

void FakeLogd::send(std::string rec) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        queue_.push_back(std::move(rec));
    }
    (void)!write(wake_[1], "s", 1);
}

void FakeLogd::send_all(const std::vector<std::string> &records) {
    {
        std::lock_guard<std::mutex> g(mutex_);
        queue_.insert(queue_.end(), records.begin(), records.end());
    }
    (void)!write(wake_[1], "s", 1);
}

void FakeLogd::go_away() {
    std::unique_lock<std::mutex> g(mutex_);
    request_ = Request::go_away;
    (void)!write(wake_[1], "g", 1);
    changed_.wait(g, [this] { return request_ == Request::none; });
}

void FakeLogd::come_back() {
    std::unique_lock<std::mutex> g(mutex_);
    request_ = Request::come_back;
    (void)!write(wake_[1], "c", 1);
    changed_.wait(g, [this] { return request_ == Request::none; });
}

std::vector<std::string> FakeLogd::commands() const {
    std::lock_guard<std::mutex> g(mutex_);
    return commands_;
}

size_t FakeLogd::queued() const {
    std::lock_guard<std::mutex> g(mutex_);
    return queue_.size() + in_flight_;
}

bool FakeLogd::drained() const {
    std::lock_guard<std::mutex> g(mutex_);
    int unread = 0;
    if (reader_fd_ >= 0 && ioctl(reader_fd_, SIOCOUTQ, &unread) != 0)
        unread = 0;
    return queue_.empty() && in_flight_ == 0 && unread == 0;
}

int FakeLogd::readers() const {
    std::lock_guard<std::mutex> g(mutex_);
    return readers_;
}

bool FakeLogd::wanted(const std::string &rec, unsigned lids) {
    if (rec.size() < sizeof(logger_entry))
        return true;  // not an entry: let the reader judge it
    uint32_t lid;
    memcpy(&lid, rec.data() + offsetof(logger_entry, lid), sizeof lid);
    return lid < 32 && (lids & (1u << lid));
}

void FakeLogd::serve() {
    for (;;) {
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (request_ == Request::quit)
                return;
            if (request_ == Request::go_away) {
                drop_reader();
                if (listen_fd_ >= 0)
                    close(listen_fd_);
                listen_fd_ = -1;
                unlink(path_.c_str());
            } else if (request_ == Request::come_back && listen_fd_ < 0) {
                listen_now();
            }
            if (request_ != Request::none) {
                request_ = Request::none;
                changed_.notify_all();
            }
        }
        bool have_data;
        {
            std::lock_guard<std::mutex> g(mutex_);
            have_data = !queue_.empty() || !sending_.empty();
        }
        pollfd fds[3];
        nfds_t n = 0;
        fds[n++] = {wake_[0], POLLIN, 0};
        if (listen_fd_ >= 0)
            fds[n++] = {listen_fd_, POLLIN, 0};
        int reader_slot = -1;
        if (reader_fd_ >= 0) {
            reader_slot = static_cast<int>(n);
            fds[n++] = {reader_fd_, static_cast<short>(POLLIN | (have_data ? POLLOUT : 0)), 0};
        }
        if (poll(fds, n, 1000) < 0 && errno != EINTR)
            return;
        if (fds[0].revents & POLLIN) {
            char buf[64];
            while (read(wake_[0], buf, sizeof buf) > 0) {
            }
        }
        if (listen_fd_ >= 0 && (fds[1].revents & POLLIN)) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                char cmd[256];
                pollfd p{fd, POLLIN, 0};
                ssize_t got = poll(&p, 1, 2000) > 0 ? recv(fd, cmd, sizeof cmd - 1, 0) : -1;
                std::lock_guard<std::mutex> g(mutex_);
                drop_reader();
                reader_fd_ = fd;
                readers_++;
                cmd[got > 0 ? got : 0] = '\0';
                commands_.emplace_back(cmd);
                lids_ = 0;
                if (const char *l = strstr(cmd, "lids=")) {
                    char *end = nullptr;
                    for (l += 5; *l >= '0' && *l <= '9'; l = *end == ',' ? end + 1 : end) {
                        lids_ |= 1u << (strtoul(l, &end, 10) & 31);
                    }
                }
                continue;
            }
        }
        if (reader_slot < 0)
            continue;
        short ev = fds[reader_slot].revents;
        if (ev & (POLLHUP | POLLERR)) {
            std::lock_guard<std::mutex> g(mutex_);
            drop_reader();
            continue;
        }
        if (ev & POLLIN) {
            char buf[256];
            if (recv(reader_fd_, buf, sizeof buf, MSG_DONTWAIT) == 0) {
                std::lock_guard<std::mutex> g(mutex_);
                drop_reader();
                continue;
            }
        }
        // Send what fits now, outside the lock; the rest when the reader has read.
        unsigned lids;
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (request_ != Request::none)
                continue;
            if (sending_.empty())
                sending_.swap(queue_);
            in_flight_ = sending_.size();
            lids = lids_;
        }
        // Still one record per packet, but up to 64 packets per call.
        int fd = reader_fd_;
        bool failed = false;
        while (!sending_.empty()) {
            constexpr size_t kBatch = 64;
            mmsghdr hdrs[kBatch];
            iovec iov[kBatch];
            size_t n = 0;
            while (!sending_.empty() && !wanted(sending_.front(), lids))
                sending_.pop_front();
            for (size_t i = 0; i < sending_.size() && n < kBatch; i++) {
                std::string &rec = sending_[i];
                if (!wanted(rec, lids))
                    break;  // dropped at the head of the next batch
                iov[n] = {rec.data(), rec.size()};
                hdrs[n] = {};
                hdrs[n].msg_hdr.msg_iov = &iov[n];
                hdrs[n].msg_hdr.msg_iovlen = 1;
                n++;
            }
            if (n == 0)
                break;
            int sent = sendmmsg(fd, hdrs, static_cast<unsigned>(n), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent < 0) {
                failed = errno != EAGAIN && errno != EWOULDBLOCK;
                break;
            }
            sending_.erase(sending_.begin(), sending_.begin() + sent);
            if (static_cast<size_t>(sent) < n)
                break;  // the reader's queue is full
        }
        std::lock_guard<std::mutex> g(mutex_);
        in_flight_ = sending_.size();
        if (failed)
            drop_reader();
    }
}
