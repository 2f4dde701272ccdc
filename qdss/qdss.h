// QDSS trace capture: the trace device streamed into the node's rotated
// files by three threads. The message handler programs the trace blocks from
// the node's mask file when the node is switched on; the capture thread reads
// the device a page at a time into blocks; the save thread writes the blocks
// out. Reader and writer meet in the filled list, which grows under load up
// to max pages (10 MiB of trace) and shrinks when the writer catches up.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "core/node.h"
#include "qdss/qdss_blocks.h"

#define QDSS_POOL_BYTES 10485760
#define QDSS_START_BLOCKS 10    // blocks the reader allocates when it starts
#define QDSS_WAIT_SECONDS 2     // the reader's and the writer's timed waits
#define QDSS_IDLE_SECONDS 3     // the reader's look while capture is off
#define QDSS_HANDLER_SECONDS 5  // the message handler's pause
#define QDSS_OPEN_TRIES 3
#define QDSS_CONFIGURE_TRIES 3
#define QDSS_IMMEDIATE_RETRIES 3  // the handler's retries at once after a failed enable

struct qdss_state {
    vorn_node *node = nullptr;  // the QDSS node, set when its threads start
    size_t page_size = 4096;
    uint32_t max_pages = 0;

    qdss_block_list filled_list;  // appended by the reader, taken by the writer
    qdss_block_list free_list;    // appended by both, taken by the reader
    std::atomic<uint32_t> filled_count{0};
    std::atomic<uint32_t> free_count{0};
    uint32_t last_filled_count = 0;  // the writer's, after its previous block

    // Wake-ups that only shorten the timed waits.
    std::mutex save_mutex;
    std::condition_variable save_cond;
    std::mutex capture_mutex;
    std::condition_variable capture_cond;

    std::atomic<int32_t> qdss_active{0};  // 1 once the hardware is configured
    std::atomic<int32_t> qdss_fd{-1};     // the reader's descriptor; -1 tells it to let go

    // Figures for the tests and the benchmark.
    std::atomic<uint32_t> blocks_allocated{0};
    std::atomic<uint32_t> peak_filled{0};
    std::atomic<uint64_t> bytes_saved{0};
};

// The daemon's one pipeline.
extern qdss_state qdss;

// Sets up the daemon's pool, once, whoever calls first (start-up, or the
// QDSS node's work thread): logs the page size and max pages, empties both
// lists, zeroes the counts, capture off, no descriptor. 0.
int qdss_buffers_init();
// The same on any state (the tests' own pipelines).
void qdss_state_init(qdss_state *s);

// Replays the mask file (a device path) through the Debug Agent, every line
// that does not begin with "#", then drops the QMI connections. 0, or -1 when
// there is no mask file or it does not open.
int qdss_configure(const char *mask_path);

// Switches STM, every CPU's ETM and the hardware events off where they are on.
// 0, or the status of the agent command that failed.
int qdss_reset();

// Work thread of the QDSS node: checks the trace device and starts the save,
// capture and message-handler threads. Returns (void *)0 or (void *)-1.
void *qdss_start_threads(void *node);
// The same on any state; 0 or -1.
int qdss_start_pipeline(qdss_state *s, vorn_node *node);

// The three threads; the argument is the state.
void *qdss_msg_handler(void *state);
void *qdss_capture_snapshot_handler(void *state);
void *qdss_save_snapshot_handler(void *state);
