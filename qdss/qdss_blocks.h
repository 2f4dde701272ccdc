// Trace blocks and the two lists the QDSS reader and writer hand them over
// on, without a lock between them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// One page of trace data behind a small header, in one heap allocation.
struct qdss_block {
    uint32_t length;  // valid bytes in data()
    std::atomic<qdss_block *> next;

    unsigned char *data() { return reinterpret_cast<unsigned char *>(this + 1); }
};

// A block with room for page_size bytes of data; null when memory runs out.
qdss_block *qdss_block_alloc(size_t page_size);
void qdss_block_free(qdss_block *block);

// A first-in first-out list of blocks that any thread may append to while one
// thread (its owner) takes from the head. Appends never wait: a block is
// swapped in as the new tail and then linked behind the old one. The filled
// list has one appender (the reader); the free list has two (the reader gives
// back blocks it could not fill, the writer the ones it wrote), which plain
// head and tail pointers would let lose a block.
class qdss_block_list {
  public:
    qdss_block_list();
    qdss_block_list(const qdss_block_list &) = delete;
    qdss_block_list &operator=(const qdss_block_list &) = delete;

    // Appends at the tail; any thread.
    void append(qdss_block *block);
    // Takes the head; the owner only. Null when the list is empty, and for
    // the moment in which an appender has swapped in its block but not yet
    // linked it.
    qdss_block *take();
    // take(), tried again while an append is half done (an appender between
    // its two steps, most likely preempted there), up to tries times.
    qdss_block *take_settled(int tries = 100);
    // Empties the list without freeing its blocks (start-up only).
    void reset();

  private:
    std::atomic<qdss_block *> tail_;  // where appenders swap in
    qdss_block *head_;                // the owner's end
    qdss_block stub_;                 // keeps the list non-empty between takes
};
