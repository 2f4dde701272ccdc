// A fake QDSS QMI service: listens on <root>/dev/qrtr/51.<instance>
// (SOCK_SEQPACKET), records every request and answers as told.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class FakeQmiService {
  public:
    enum class Reply {
        kSuccess,          // result 0, error 0
        kFailure,          // result 1 with error()
        kGarbage,          // bytes that are no QMI message
        kShort,            // three bytes
        kStaleThenAnswer,  // an answer with another transaction id, then the real one
        kStaleOnly,        // an answer with another transaction id, then nothing
        kHangUp,           // closes the connection
    };

    // root_dir is the host directory of the device root.
    FakeQmiService(const std::string &root_dir, uint32_t instance);
    ~FakeQmiService();

    void set_reply(Reply reply, uint16_t error = 0) {
        reply_ = reply;
        error_ = error;
    }
    std::vector<std::vector<uint8_t>> requests() const;
    int connections() const { return connections_; }

  private:
    void serve();
    void answer(int fd, const uint8_t *req, size_t len);

    std::string path_;
    int listen_fd_ = -1;
    int stop_pipe_[2] = {-1, -1};
    std::thread thread_;
    std::atomic<Reply> reply_{Reply::kSuccess};
    std::atomic<uint16_t> error_{0};
    std::atomic<int> connections_{0};
    mutable std::mutex mutex_;
    std::vector<std::vector<uint8_t>> requests_;
};

// The encoding of a standard answer (type 2) to msg_id at txn.
std::vector<uint8_t> qmi_answer_bytes(uint16_t txn, uint16_t msg_id, uint16_t result,
                                      uint16_t error);
