#include "qdss/qdss_blocks.h"

#include <sched.h>

#include <cstdlib>
#include <new>

qdss_block *qdss_block_alloc(size_t page_size) {
    void *mem = malloc(sizeof(qdss_block) + page_size);
    if (mem == nullptr)
        return nullptr;
    auto *block = new (mem) qdss_block;
    block->length = 0;
    block->next.store(nullptr, std::memory_order_relaxed);
    return block;
}

void qdss_block_free(qdss_block *block) {
    if (block == nullptr)
        return;
    block->~qdss_block();
    free(block);
}

qdss_block_list::qdss_block_list() {
    reset();
}

void qdss_block_list::reset() {
    stub_.length = 0;
    stub_.next.store(nullptr, std::memory_order_relaxed);
    head_ = &stub_;
    tail_.store(&stub_, std::memory_order_relaxed);
}

void qdss_block_list::append(qdss_block *block) {
    block->next.store(nullptr, std::memory_order_relaxed);
    qdss_block *prev = tail_.exchange(block, std::memory_order_acq_rel);
    // Until this store the block is in the list but not reachable from the
    // head; take() then reports the list empty rather than wait.
    prev->next.store(block, std::memory_order_release);
}

qdss_block *qdss_block_list::take() {
    qdss_block *head = head_;
    qdss_block *next = head->next.load(std::memory_order_acquire);
    if (head == &stub_) {
        if (next == nullptr)
            return nullptr;
        head_ = next;
        head = next;
        next = next->next.load(std::memory_order_acquire);
    }
    if (next != nullptr) {
        head_ = next;
        return head;
    }
    // head is the last linked block: it can only go once something stands
    // behind it, so the stub is appended first.
    if (head != tail_.load(std::memory_order_acquire))
        return nullptr;  // an append is half done
    append(&stub_);
    next = head->next.load(std::memory_order_acquire);
    if (next != nullptr) {
        head_ = next;
        return head;
    }
    return nullptr;
}

qdss_block *qdss_block_list::take_settled(int tries) {
    qdss_block *block = take();
    for (int i = 0; block == nullptr && i < tries; i++) {
        sched_yield();
        block = take();
    }
    return block;
}
