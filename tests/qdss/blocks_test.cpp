// The block lists: two threads appending while a third takes, as the reader
// and the writer share the free list.
#include <gtest/gtest.h>

#include <thread>

#include "qdss/qdss_blocks.h"

namespace {

TEST(QdssBlockList, TwoAppendersAndATakerLoseNothingAndKeepEachOrder) {
    constexpr uint32_t kPerAppender = 200000;
    qdss_block_list list;
    auto appender = [&list](uint32_t id) {
        for (uint32_t i = 0; i < kPerAppender; i++) {
            qdss_block *b = qdss_block_alloc(0);
            b->length = id << 24 | i;
            list.append(b);
        }
    };
    std::thread a(appender, 1), b(appender, 2);
    uint32_t next[3] = {0, 0, 0};
    uint32_t taken = 0, out_of_order = 0;
    while (taken < 2 * kPerAppender) {
        qdss_block *block = list.take();
        if (block == nullptr)
            continue;
        uint32_t id = block->length >> 24, seq = block->length & 0xFFFFFF;
        if (id < 1 || id > 2 || seq != next[id])
            out_of_order++;
        else
            next[id]++;
        taken++;
        qdss_block_free(block);
    }
    a.join();
    b.join();
    EXPECT_EQ(out_of_order, 0u);
    EXPECT_EQ(next[1], kPerAppender);
    EXPECT_EQ(next[2], kPerAppender);
    EXPECT_EQ(list.take(), nullptr);

    // Empty again, the list takes appends as before (the stub is reused).
    qdss_block *one = qdss_block_alloc(16);
    list.append(one);
    EXPECT_EQ(list.take(), one);
    EXPECT_EQ(list.take(), nullptr);
    qdss_block_free(one);
}

}  // namespace
