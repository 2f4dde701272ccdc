#include <unistd.h>

#include "platform/log.h"
#include "qdss/qdss.h"

qdss_state qdss = {.filled_head = nullptr,
                   .filled_tail = &qdss.filled_head,
                   .free_head = nullptr,
                   .free_tail = &qdss.free_head,
                   .max_pages = 0,
                   .filled_count = 0,
                   .free_count = 0,
                   .last_filled_count = 0,
                   .save_mutex = PTHREAD_MUTEX_INITIALIZER,
                   .save_cond = PTHREAD_COND_INITIALIZER,
                   .capture_mutex = PTHREAD_MUTEX_INITIALIZER,
                   .capture_cond = PTHREAD_COND_INITIALIZER,
                   .qdss_active = 0,
                   .qdss_fd = -1};

int qdss_buffers_init() {
    long page = sysconf(_SC_PAGESIZE);
    qdss.max_pages = page > 0 ? static_cast<uint32_t>(QDSS_POOL_BYTES / page) : 2560;
    VLOGD("pagesize = %d, max pages = %d", static_cast<int>(page),
          static_cast<int>(qdss.max_pages));
    qdss.filled_head = nullptr;
    qdss.filled_tail = &qdss.filled_head;
    qdss.free_head = nullptr;
    qdss.free_tail = &qdss.free_head;
    qdss.filled_count = 0;
    qdss.free_count = 0;
    qdss.last_filled_count = 0;
    qdss.qdss_active = 0;
    qdss.qdss_fd = -1;
    return 0;
}
