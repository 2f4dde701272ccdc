// QDSS trace capture: the block pool shared by the reader and the writer, and
// the node's thread launcher.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// One page of trace data behind a small header.
struct qdss_block {
    uint32_t length;  // valid bytes in data
    qdss_block *next;
    unsigned char data[];
};

struct qdss_state {
    qdss_block *filled_head;
    qdss_block **filled_tail;
    qdss_block *free_head;
    qdss_block **free_tail;
    uint32_t max_pages;
    std::atomic<uint32_t> filled_count;
    std::atomic<uint32_t> free_count;
    uint32_t last_filled_count;
    pthread_mutex_t save_mutex;
    pthread_cond_t save_cond;
    pthread_mutex_t capture_mutex;
    pthread_cond_t capture_cond;
    std::atomic<int32_t> qdss_active;
    std::atomic<int32_t> qdss_fd;
};

extern qdss_state qdss;

#define QDSS_POOL_BYTES 10485760

// Sets up the pool once at start-up; 0 on success.
int qdss_buffers_init();

// Work thread of the QDSS node: starts the save, capture and message-handler
// threads.
void *qdss_start_threads(void *node);
