// A device of the simulated phone's device file system: what one driver does
// on read, write and poll. Reads may block; they wait on the device's
// condition and give up with EINTR when the kernel interrupts the caller (a
// signal) or when the file system is going down.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct fuse_pollhandle;

// Set by the file system while one of its threads serves a request.
extern thread_local bool sim_in_request;

// What one open of a device keeps (a reader's position, the attribute
// generation it has seen).
struct SimOpen {
    uint64_t cursor = 0;
    uint64_t seen = 0;
};

class SimDevice {
  public:
    explicit SimDevice(std::string name) : name_(std::move(name)) {}
    virtual ~SimDevice();
    SimDevice(const SimDevice &) = delete;
    SimDevice &operator=(const SimDevice &) = delete;

    const std::string &name() const { return name_; }
    // Streams ignore offsets and are opened non-seekable.
    virtual bool stream() const { return true; }
    virtual bool writable() const { return false; }
    virtual uint64_t size() { return 0; }
    virtual void opened(SimOpen &) {}
    // Bytes read (0 at end of file) or -errno.
    virtual ssize_t read(SimOpen &open, char *buf, size_t len, off_t off) = 0;
    virtual ssize_t write(const char *, size_t) { return -13; }

    // Current events of one open; ph (may be null) is kept and notified at the
    // next change.
    unsigned poll(SimOpen &open, fuse_pollhandle *ph);

    // Wakes blocked readers at shutdown.
    void shut_down();

  protected:
    virtual unsigned events_locked(const SimOpen &open) = 0;
    // Wakes readers and pollers; call with mu_ held.
    void changed_locked();
    // Waits until pred() holds; false when interrupted or shut down.
    template <typename Pred>
    bool wait_locked(std::unique_lock<std::mutex> &lock, Pred pred) {
        while (!pred()) {
            if (down_ || interrupted())
                return false;
            cv_.wait_for(lock, std::chrono::milliseconds(50));
        }
        return true;
    }
    // Sleeps up to ms unless woken; false when interrupted or shut down.
    bool nap_locked(std::unique_lock<std::mutex> &lock, int ms);

    std::mutex mu_;

  private:
    static constexpr size_t kMaxPolls = 64;
    static bool interrupted();

    std::string name_;
    std::condition_variable cv_;
    std::vector<fuse_pollhandle *> polls_;
    bool down_ = false;
};
