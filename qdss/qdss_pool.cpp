#include <unistd.h>

#include <mutex>

#include "platform/log.h"
#include "qdss/qdss.h"

qdss_state qdss;

void qdss_state_init(qdss_state *s) {
    long page = sysconf(_SC_PAGESIZE);
    s->page_size = page > 0 ? static_cast<size_t>(page) : 4096;
    s->max_pages = page > 0 ? static_cast<uint32_t>(QDSS_POOL_BYTES / page) : 2560;
    VLOGD("pagesize = %d, max pages = %d", static_cast<int>(page), static_cast<int>(s->max_pages));
    s->filled_list.reset();
    s->free_list.reset();
    s->filled_count = 0;
    s->free_count = 0;
    s->last_filled_count = 0;
    s->qdss_active = 0;
    s->qdss_fd = -1;
    s->blocks_allocated = 0;
    s->peak_filled = 0;
    s->bytes_saved = 0;
}

int qdss_buffers_init() {
    // Once: a QDSS node enabled in the configuration starts its threads
    // (which set the pool up first) before start-up gets here, and the
    // lists must not be emptied under them.
    static std::once_flag once;
    std::call_once(once, [] { qdss_state_init(&qdss); });
    return 0;
}
