// The QDSS save thread: writes the queued blocks into the node's rotated
// files and hands them back to the reader, or frees them while the queue
// drains so that the pool shrinks to its working size.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "capture/log_writer.h"
#include "platform/log.h"
#include "platform/root.h"
#include "qdss/qdss.h"

namespace {

class qdss_writer {
  public:
    explicit qdss_writer(qdss_state *s) : s_(s), node_(s->node) {}

    [[noreturn]] void run() {
        VLOGD("QDSS(W) start ...\n");
        if (open_log_file(node_, &file_, path_) != 0)
            VLOGE("QDSS(W) : Failed to create file");
        for (;;)
            step();
    }

  private:
    void step() {
        if (block_ == nullptr) {
            if (s_->filled_count.load() == 0) {
                wait_for_data();
                return;
            }
            block_ = s_->filled_list.take_settled();
            if (block_ == nullptr) {
                VLOGE("QDSS(W) : NULL cached buffer");
                return;
            }
        }
        if (!write_block()) {
            make_file_again();
            return;
        }
        hand_back_block();
    }

    void wait_for_data() {
        std::unique_lock<std::mutex> lock(s_->save_mutex);
        s_->save_cond.wait_for(lock, std::chrono::seconds(QDSS_WAIT_SECONDS),
                               [this] { return s_->filled_count.load() != 0; });
    }

    // Writes the block in hand and flushes it. On failure the block keeps
    // only the bytes that did not reach the file.
    bool write_block() {
        if (file_.fp == nullptr) {
            VLOGE("QDSS(W) : Failed to write out to log file\n");
            return false;
        }
        int len = static_cast<int>(block_->length);
        uint64_t before = file_.written;  // the file's length: every block is flushed
        char old_path[VORN_PATH_MAX];
        memcpy(old_path, path_, sizeof old_path);
        int rc = write_log_data(reinterpret_cast<const char *>(block_->data()), len, &file_, path_,
                                node_);
        if (rc == len && fflush(file_.fp) == 0) {
            s_->bytes_saved.fetch_add(static_cast<uint64_t>(len), std::memory_order_relaxed);
            return true;
        }

        VLOGE("QDSS(W) : Failed to write out to log file\n");
        bool rolled_over = strcmp(old_path, path_) != 0;
        close_log_file(&file_);
        // The closed file tells how much of the block it holds; a file that
        // was rolled over took the whole block before the roll-over failed.
        uint64_t done = static_cast<uint64_t>(len);
        if (!rolled_over) {
            struct stat st;
            if (stat(vorn_path(old_path).c_str(), &st) == 0 &&
                static_cast<uint64_t>(st.st_size) >= before)
                done = std::min(static_cast<uint64_t>(st.st_size) - before, done);
            else
                done = 0;
        }
        block_->length -= static_cast<uint32_t>(done);
        memmove(block_->data(), block_->data() + done, block_->length);
        return false;
    }

    // After a failed write: a new file (the failed one continued, as the
    // writer does after a full disk) three seconds later. The part of the
    // block that was not written stays in hand and goes into it.
    void make_file_again() {
        close_log_file(&file_);
        sleep(3);
        VLOGI("QDSS(W) : recrate a new log file");
        if (open_log_file(node_, &file_, path_) != 0 || file_.fp == nullptr) {
            VLOGE("QDSS(W) : Failed to create file");
            return;
        }
        if (block_->length == 0)
            hand_back_block();
    }

    // The written block leaves the queue: freed while the queue drains and
    // the pool holds more than it needs, otherwise back to the reader.
    void hand_back_block() {
        qdss_block *b = block_;
        block_ = nullptr;
        uint32_t filled = s_->filled_count.fetch_sub(1) - 1;
        uint32_t free_blocks = s_->free_count.load();
        if (filled + free_blocks > 9 && filled <= s_->last_filled_count) {
            qdss_block_free(b);
            s_->blocks_allocated.fetch_sub(1);
        } else {
            s_->free_list.append(b);
            if (s_->free_count.fetch_add(1) + 1 > 10) {
                { std::lock_guard<std::mutex> lock(s_->capture_mutex); }
                s_->capture_cond.notify_one();
            }
        }
        s_->last_filled_count = filled;
    }

    qdss_state *s_;
    vorn_node *node_;
    vorn_log_file file_{};
    char path_[VORN_PATH_MAX] = "";
    qdss_block *block_ = nullptr;  // taken from the queue, not yet written
};

}  // namespace

void *qdss_save_snapshot_handler(void *state) {
    qdss_writer writer(static_cast<qdss_state *>(state));
    writer.run();
}
