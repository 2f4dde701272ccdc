// The QDSS capture thread: reads the trace device a page at a time into
// blocks and queues them for the save thread. The pool starts at ten blocks
// and grows while the queue holds fewer than max pages; when it is full the
// reader stops reading and the device overflows, which the reader recovers
// from by resetting the trace blocks, replaying the mask file and reopening
// the device.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "capture/log_writer.h"
#include "capture/worker_util.h"
#include "core/gbl_config.h"
#include "platform/io.h"
#include "platform/log.h"
#include "platform/root.h"
#include "qdss/qdss.h"

namespace {

class qdss_reader {
  public:
    explicit qdss_reader(qdss_state *s) : s_(s), node_(s->node) {}

    [[noreturn]] void run() {
        {
            vorn_node_guard g(node_);
            node_->worker_thread = static_cast<uint64_t>(pthread_self());
        }
        install_selfsig_handler();
        prepare_log_root(node_);
        for (int i = 0; i < QDSS_START_BLOCKS; i++) {
            if (qdss_block *b = new_block()) {
                s_->free_list.append(b);
                s_->free_count.fetch_add(1);
            }
        }
        VLOGD("QDSS(R) start ...\n");
        for (;;)
            step();
    }

  private:
    void step() {
        if (s_->qdss_active.load() == 0) {
            sleep(QDSS_IDLE_SECONDS);
            return;
        }
        if (waiting_for_command())
            return;
        // The message handler sets qdss_fd to -1 when the node is switched
        // off or on again: the descriptor this reader holds is then done with.
        if (fd_.valid() && s_->qdss_fd.load() != fd_.get())
            fd_.reset();
        if (!fd_.valid() && !open_provider())
            return;
        if (s_->filled_count.load() != 0)
            wake_writer();
        if (block_ == nullptr)
            block_ = take_block();
        if (block_ == nullptr) {
            wait_for_blocks();
            return;
        }

        ssize_t n = read(fd_.get(), block_->data(), s_->page_size);
        if (n < 0) {
            read_failed(errno);
            return;
        }
        if (n == 0) {
            // A device at its end: look again after the reader's wait
            // instead of reading in a tight loop.
            give_back_block();
            sleep(QDSS_WAIT_SECONDS);
            return;
        }
        block_->length = static_cast<uint32_t>(n);
        s_->filled_list.append(block_);
        block_ = nullptr;
        uint32_t filled = s_->filled_count.fetch_add(1) + 1;
        if (filled > s_->peak_filled.load(std::memory_order_relaxed))
            s_->peak_filled.store(filled, std::memory_order_relaxed);
        if (s_->qdss_active.load() == 0)
            fd_.reset();
    }

    // After a read error other than EINTR and EIO the node is switched off
    // and the reader waits for the next enable or disable command, which
    // sets qdss_fd anew. Reading on the closed descriptor's number instead
    // would spin, and read from whatever file the number went to next.
    bool waiting_for_command() {
        if (stale_fd_ < 0)
            return false;
        if (s_->qdss_fd.load() == stale_fd_) {
            sleep(QDSS_IDLE_SECONDS);
            return true;
        }
        stale_fd_ = -1;
        return false;
    }

    std::string provider() {
        vorn_node_guard g(node_);
        return node_->log_provider ? node_->log_provider : "";
    }

    std::string mask() {
        vorn_node_guard g(node_);
        return std::string(node_->mask, strnlen(node_->mask, sizeof node_->mask));
    }

    void switch_node_off() {
        vorn_node_guard g(node_);
        node_->enable = 0;
    }

    bool open_provider() {
        provider_ = provider();
        VLOGD("Open device node : %s\n", provider_.c_str());
        int err = 0;
        for (int i = 0; i < QDSS_OPEN_TRIES; i++) {
            int fd = open(vorn_path(provider_).c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                fd_.reset(fd);
                s_->qdss_fd.store(fd);
                return true;
            }
            err = errno;
        }
        VLOGE("Failed to open log provider(%s) error (%s)", provider_.c_str(), strerror(err));
        s_->qdss_active.exchange(0);
        s_->qdss_fd.exchange(-1);
        return false;
    }

    qdss_block *new_block() {
        qdss_block *b = qdss_block_alloc(s_->page_size);
        if (b != nullptr)
            s_->blocks_allocated.fetch_add(1);
        return b;
    }

    // A free block, a new one while the queue is below max pages, or null.
    qdss_block *take_block() {
        if (s_->free_count.load() != 0) {
            s_->free_count.fetch_sub(1);
            // The writer may be between the two steps of its append.
            qdss_block *b = s_->free_list.take_settled();
            if (b != nullptr)
                return b;
            s_->free_count.fetch_add(1);
        }
        if (s_->filled_count.load() < s_->max_pages)
            return new_block();
        return nullptr;
    }

    void give_back_block() {
        if (block_ == nullptr)
            return;
        s_->free_list.append(block_);
        block_ = nullptr;
        s_->free_count.fetch_add(1);
    }

    void wake_writer() {
        { std::lock_guard<std::mutex> lock(s_->save_mutex); }
        s_->save_cond.notify_one();
    }

    // Until the writer has handed back more than ten blocks, or two seconds.
    void wait_for_blocks() {
        std::unique_lock<std::mutex> lock(s_->capture_mutex);
        s_->capture_cond.wait_for(lock, std::chrono::seconds(QDSS_WAIT_SECONDS),
                                  [this] { return s_->free_count.load() > 10; });
    }

    void read_failed(int err) {
        VLOGE("QDSS(R) : %s: Failed to read from dev node: %s\n", strerror(err), provider_.c_str());
        if (err == EINTR)
            return;  // read again
        if (err == EIO && recover_overflow())
            return;
        if (err == EIO && fd_.valid())
            return;  // the hardware could not be programmed again: the node is off
        fd_.reset();
        switch_node_off();
        give_back_block();
        int held = s_->qdss_fd.load();
        stale_fd_ = held >= 0 ? held : -1;
    }

    // The trace buffer overflowed. True when the reader may read on (the
    // hardware reprogrammed and the device reopened); false with the
    // descriptor still open when the reset or the replay failed (the node is
    // switched off), or closed when the device did not open again.
    bool recover_overflow() {
        if (qdss_reset() != 0) {
            VLOGE("Failed to reset qdss after data overflow. Disale QDSS logging\n");
            switch_node_off();
            return false;
        }
        std::string mask_path = mask();
        bool configured = false;
        for (int i = 0; i < QDSS_CONFIGURE_TRIES && !configured; i++)
            configured = qdss_configure(mask_path.empty() ? nullptr : mask_path.c_str()) >= 0;
        if (!configured) {
            VLOGE("Failed to configure qdss\n");
            switch_node_off();
            return false;
        }
        VLOGD("byte count overflow, reopen log provider\n");
        int old = fd_.get();
        fd_.reset();
        for (int i = 0; i < QDSS_OPEN_TRIES; i++) {
            int fd = open(vorn_path(provider_).c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                VLOGD("succeed to open device node %s\n", provider_.c_str());
                fd_.reset(fd);
                // Unless the handler has meanwhile told the reader to let go.
                s_->qdss_fd.compare_exchange_strong(old, fd);
                return true;
            }
            VLOGE("Failed to open device node: %s (%s)\n", provider_.c_str(), strerror(errno));
            sleep(1);
        }
        return false;
    }

    qdss_state *s_;
    vorn_node *node_;
    unique_fd fd_;
    int stale_fd_ = -1;
    std::string provider_;
    qdss_block *block_ = nullptr;  // the block in hand, not on either list
};

}  // namespace

void *qdss_capture_snapshot_handler(void *state) {
    qdss_reader reader(static_cast<qdss_state *>(state));
    reader.run();
}
