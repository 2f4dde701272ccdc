// A stand-in for logd's reader socket on a host: it listens on a
// SOCK_SEQPACKET socket (normally <root>/dev/socket/logdr), takes readers with
// their text command ("stream lids=0,3") and sends each the scripted records
// of its buffers, one per packet, in the order they were queued. Records
// queued while no reader is connected wait for the next one, and so do the
// ones a sole reader had not taken when it hung up. Used by the logd capture
// tests and benchmark and by the simulated phone.
#pragma once

#include <log/log_read.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

class FakeLogd {
  public:
    explicit FakeLogd(std::string socket_path);  // listens at once
    ~FakeLogd();
    FakeLogd(const FakeLogd &) = delete;
    FakeLogd &operator=(const FakeLogd &) = delete;

    // Records with liblog's header: a text entry (priority, tag, message) and
    // an events entry (tag number, then the binary event data).
    static std::string text_entry(log_id_t lid, int prio, std::string_view tag,
                                  std::string_view msg, int32_t pid = 1234, uint32_t sec = 0,
                                  uint32_t nsec = 0);
    static std::string event_entry(uint32_t tag, std::string_view data, int32_t pid = 1234,
                                   uint32_t sec = 0, uint32_t nsec = 0);

    // Queues a record (any bytes) for the reader; records of buffers the
    // reader did not ask for are dropped when their turn comes.
    void send(std::string record);
    void send_all(const std::vector<std::string> &records);
    // Hangs up on the readers, stops listening and removes the socket.
    void go_away();
    // Listens again.
    void come_back();

    std::vector<std::string> commands() const;  // every reader's command so far
    size_t queued() const;                      // records not yet sent
    bool drained() const;                       // all sent and read by the reader
    int readers() const;                        // connections accepted so far

  private:
    void serve();
    bool listen_now();
    struct Reader {
        int fd;
        unsigned lids;
        std::deque<std::string> out;  // records for it not yet sent
    };
    void drop_reader(size_t i);
    void drop_readers();
    void update_in_flight();
    static bool wanted(const std::string &record, unsigned lids);

    std::string path_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> queue_;
    std::vector<std::string> commands_;
    int readers_ = 0;
    // Changed under mutex_ by the server thread only; their out queues are
    // the server thread's alone.
    std::vector<Reader> conns_;
    size_t in_flight_ = 0;  // records in the out queues, for queued() and drained()
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    enum class Request { none, go_away, come_back, quit } request_ = Request::none;
    std::thread thread_;
};
