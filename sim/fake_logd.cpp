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
    drop_readers();
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

// With mutex_ held. What a sole reader had not taken waits for the next one;
// other readers have their own copies.
void FakeLogd::drop_reader(size_t i) {
    Reader r = std::move(conns_[i]);
    conns_.erase(conns_.begin() + static_cast<std::ptrdiff_t>(i));
    close(r.fd);
    if (conns_.empty())
        queue_.insert(queue_.begin(), r.out.begin(), r.out.end());
    update_in_flight();
}

void FakeLogd::drop_readers() {
    while (!conns_.empty())
        drop_reader(conns_.size() - 1);
}

void FakeLogd::update_in_flight() {
    in_flight_ = 0;
    for (const Reader &r : conns_)
        in_flight_ += r.out.size();
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
    for (const Reader &r : conns_) {
        int unread = 0;
        if (ioctl(r.fd, SIOCOUTQ, &unread) == 0 && unread != 0)
            return false;
    }
    return queue_.empty() && in_flight_ == 0;
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
                drop_readers();
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
        constexpr size_t kMaxReaders = 16;
        pollfd fds[2 + kMaxReaders];
        nfds_t n = 0;
        fds[n++] = {wake_[0], POLLIN, 0};
        int listen_slot = -1;
        if (listen_fd_ >= 0) {
            listen_slot = static_cast<int>(n);
            fds[n++] = {listen_fd_, POLLIN, 0};
        }
        size_t first_reader = n;
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (const Reader &r : conns_) {
                bool have_data = !queue_.empty() || !r.out.empty();
                fds[n++] = {r.fd, static_cast<short>(POLLIN | (have_data ? POLLOUT : 0)), 0};
            }
        }
        if (poll(fds, n, 1000) < 0 && errno != EINTR)
            return;
        if (fds[0].revents & POLLIN) {
            char buf[64];
            while (read(wake_[0], buf, sizeof buf) > 0) {
            }
        }
        // Readers that hung up go first, so that what a sole reader left
        // waits for the one that replaces it.
        {
            std::lock_guard<std::mutex> g(mutex_);
            for (size_t i = conns_.size(); i-- > 0;) {
                short ev = fds[first_reader + i].revents;
                bool gone = (ev & (POLLHUP | POLLERR)) != 0;
                if (!gone && (ev & POLLIN)) {
                    char buf[256];
                    gone = recv(conns_[i].fd, buf, sizeof buf, MSG_DONTWAIT) == 0;
                }
                if (gone)
                    drop_reader(i);
            }
        }
        if (listen_slot >= 0 && (fds[listen_slot].revents & POLLIN)) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                char cmd[256];
                pollfd p{fd, POLLIN, 0};
                ssize_t got = poll(&p, 1, 2000) > 0 ? recv(fd, cmd, sizeof cmd - 1, 0) : -1;
                std::lock_guard<std::mutex> g(mutex_);
                if (conns_.size() == kMaxReaders)
                    drop_reader(0);
                readers_++;
                cmd[got > 0 ? got : 0] = '\0';
                commands_.emplace_back(cmd);
                unsigned lids = 0;
                if (const char *l = strstr(cmd, "lids=")) {
                    char *end = nullptr;
                    for (l += 5; *l >= '0' && *l <= '9'; l = *end == ',' ? end + 1 : end) {
                        lids |= 1u << (strtoul(l, &end, 10) & 31);
                    }
                }
                conns_.push_back(Reader{fd, lids, {}});
                continue;
            }
        }
        // Hand the queue to the readers, each the records of its buffers.
        {
            std::lock_guard<std::mutex> g(mutex_);
            if (request_ != Request::none || conns_.empty())
                continue;
            for (std::string &rec : queue_)
                for (Reader &r : conns_)
                    if (wanted(rec, r.lids))
                        r.out.push_back(rec);
            queue_.clear();
            update_in_flight();
        }
        // Send what fits now, outside the lock (the out queues are this
        // thread's); the rest when the reader has read.
        std::vector<size_t> failed;
        for (size_t k = 0; k < conns_.size(); k++) {
            Reader &r = conns_[k];
            while (!r.out.empty()) {
                // Still one record per packet, but up to 64 packets per call.
                constexpr size_t kBatch = 64;
                mmsghdr hdrs[kBatch];
                iovec iov[kBatch];
                size_t m = 0;
                for (size_t i = 0; i < r.out.size() && m < kBatch; i++) {
                    iov[m] = {r.out[i].data(), r.out[i].size()};
                    hdrs[m] = {};
                    hdrs[m].msg_hdr.msg_iov = &iov[m];
                    hdrs[m].msg_hdr.msg_iovlen = 1;
                    m++;
                }
                int sent =
                    sendmmsg(r.fd, hdrs, static_cast<unsigned>(m), MSG_DONTWAIT | MSG_NOSIGNAL);
                if (sent < 0) {
                    if (errno != EAGAIN && errno != EWOULDBLOCK)
                        failed.push_back(k);
                    break;
                }
                r.out.erase(r.out.begin(), r.out.begin() + sent);
                if (static_cast<size_t>(sent) < m)
                    break;  // the reader's queue is full
            }
        }
        std::lock_guard<std::mutex> g(mutex_);
        for (size_t i = failed.size(); i-- > 0;)
            drop_reader(failed[i]);
        update_in_flight();
    }
}
