// The DumpParser node: queue of DDR dump directories and the kernel-log
// extractor. Every path handed to these functions is a device path; it is
// resolved under the daemon's root only where it meets the system.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/node.h"

// Node ops of the DumpParser row. The enable op queues the path held in the
// command's mask through the node's work thread (the producer).
int dumpparser_enable(vorn_node *node, const vorn_ctrl_msg *cmd);
int dumpparser_disable(vorn_node *node, const vorn_ctrl_msg *cmd);
void *dumpparser_produce_thread(void *node);
// The single consumer, started detached by the producer.
void *dumpparser_consume_thread(void *arg);

// The queue of dump directories: a FIFO whose tail addresses the last entry's
// next field, or the head when empty. Guarded by dump_list_mutex.
#define DUMPPARSER_PATH_LEN 2048
struct pdump_entry {
    char path[DUMPPARSER_PATH_LEN];
    pdump_entry *next;
};
extern pthread_mutex_t dump_list_mutex;
extern pdump_entry *dump_list_head;
extern pdump_entry **dump_list_tail;
// Both threads end when this drops to 0; the consumer only on an empty queue.
extern std::atomic<uint8_t> dumpparser_running;
// The consumer's pthread id, 0 while none runs.
extern std::atomic<uint64_t> dumpparser_consumer_tid;

// Runs the whole extraction for one dump directory with this kernel's release
// and always ends with one broadcast; returns the broadcast's status.
int dumpparser_parse_dir(const char *dir);
// The same for a given kernel version (major * 100 + minor): below 304 fails,
// 304 reads table format 1, newer ones format 2.
int dumpparser_parse_dir_version(const char *dir, int version);
// The same without the version check and the broadcast: kmsg.txt and the
// reason (DUMPPARSER_REASON_LEN bytes) of a version of at least 304; the
// status the broadcast would carry.
int dumpparser_extract(const char *dir, int version, char *reason);
// major * 100 + minor of a release text such as "3.10.49", or -1.
int dumpparser_kernel_version(const char *release);

// Physical base of DDRCS<index>.BIN from the directory's load.cmm; 0 or -1.
int dumpparser_segment_base(const char *dir, int index, uint64_t *base);
// Number of directory entries whose name contains text; 0 when unreadable.
int dumpparser_count_segments(const char *dir, const char *text);
// Looks id up in the memory dump table at table_off of file. Format 1 gives
// the entry's start and end, format 2 its address. 0 or -1.
int dumpparser_table_find_v1(uint64_t table_off, uint32_t id, const char *file, uint64_t *start,
                             uint64_t *end);
int dumpparser_table_find_v2(uint64_t table_off, const char *file, uint32_t id, uint64_t *addr);
// Reads exactly len bytes at off of file; 0 or -1.
int dumpparser_read_at(uint64_t off, const char *file, size_t len, void *buf);
// Writes the kernel log found at off of image into out: a raw copy of len
// bytes when first_idx is -1, else the record walk from off + first_idx.
int dumpparser_dump_kmsg(uint64_t off, uint32_t len, int64_t first_idx, const char *image,
                         const char *out);

// Crash reason patterns, tested in this order within a line.
#define DUMPPARSER_REASON_LEN 64
enum { DUMPPARSER_SSR_RESET, DUMPPARSER_KERNEL_PANIC, DUMPPARSER_WDOG_BARK, DUMPPARSER_REASONS };
extern char dumpparser_reasons[DUMPPARSER_REASONS][40];
// Replaces reason (DUMPPARSER_REASON_LEN bytes) with the crash reason found in
// the kernel log file: a subsystem name, or "AP"; unchanged when none.
void get_reason(const char *file, char *reason);
