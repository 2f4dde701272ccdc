// The subsystem-restart ramdump collector and the threads it runs beside it:
// the QDSS sink dumps, the uevent monitor and the external-modem collector.
// The collector owns one ssr_state; the side threads share its flags and its
// two semaphores. Paths here are device paths, resolved under the root
// (platform/root.h) where they meet the system.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#define SSR_MAX_DEVICES 10
#define SSR_NAME_LEN 30
#define SSR_PATH_LEN 256
#define SSR_STAMP_LEN 21  // "-YYYY-MM-DD_hh-mm-ss" and the terminator
#define SSR_COPY_CHUNK 32768
#define SSR_KEEP_DUMPS 5

#define SSR_ENABLE_RAMDUMPS "/sys/module/subsystem_restart/parameters/enable_ramdumps"
#define SSR_RAMDUMP_DIR "subsystem_ramdump"
#define SSR_MDM_DEV "/dev/mdm"
#define SSR_QSC_SOCKET "/data/misc/mdmhelperdata/qschelpsocket"
#define SSR_TOMBSTONES_MDM "/tombstones/mdm"
#define SSR_TOMBSTONES_MDM2 "/tombstones/mdm2"

// Monitor flag bits.
#define SSR_UEVENT_MON 0x01   // /dev/mdm present: the uevent monitor runs
#define SSR_QSC_PRESENT 0x02  // the QSC help socket is present
#define SSR_MDM_PENDING 0x08  // an external MDM dump waits to be copied
#define SSR_QSC_PENDING 0x10  // a QSC dump waits to be copied

// Device names found in /dev, in directory order.
extern char ramdump_list[SSR_MAX_DEVICES][SSR_NAME_LEN];
static_assert(sizeof(ramdump_list) == 300, "ramdump_list is 300 bytes");

struct ssr_state {
    int count = 0;           // names in ramdump_list
    char *folder = nullptr;  // "<log root>/subsystem_ramdump" while running
    int fds[SSR_MAX_DEVICES];
    int index[SSR_MAX_DEVICES];  // into ramdump_list
    pollfd pfds[SSR_MAX_DEVICES];
    std::atomic<uint32_t> flags{0};
    sem_t ext_modem_sem;
    sem_t qdss_sem;
    // Set by the tear-down before it wakes the side threads.
    std::atomic<bool> stopping{false};
};

// The collector's work after the thread's own set-up: the enable_ramdumps
// check, the /dev scan, the folder, the side threads and the poll loop, then
// the tear-down. Returns once collection has ended (a failure, or SIGUSR1).
void ssr_collect(ssr_state *st);

// The local time as "-%04d-%02d-%02d_%02d-%02d-%02d" into buf (at least
// SSR_STAMP_LEN bytes); returns buf, or null.
char *ssr_timestamp(char *buf, size_t len);

// Creates a directory (a device path) and its parents; 0, or -errno.
int ssr_make_dir(const char *dir);

// pthread_kill(thread, sig), then pthread_join. Returns 0 or the error.
int ssr_stop_thread(pthread_t thread, int sig);

// Copies the dump waiting on poll slot i (0..9) into the ramdump folder.
// Returns the bytes written, 0 when the slot has nothing, or a negative errno.
long ssr_dump_device(int i, ssr_state *st, const char *stamp);

// Opens path (a resolved path) for a new dump file: created write-only with
// mode 0400 and never truncated. A name already taken (a second dump in the
// same second) gets "_NNNN" before ext, so no dump is written over another.
// path holds the name used; -1 with errno on failure.
int ssr_open_dump_file(char *path, size_t len, const char *base, const char *ext);

// Thread routines run beside the collector; each takes the ssr_state.
void *qdss_sink_thread(void *st);
void *uevent_monitor_thread(void *st);
void *ext_modem_thread(void *st);

// Saves one CoreSight sink ("coresight-tmc-etf"...) of the expected size
// into the ramdump folder; 0 or a negative error.
int qdss_sink_dump(const ssr_state *st, const char *name, long size);

// Copies the entries of src (not those beginning with ".") into
// "<folder><part><stamp>"; 0 or -22 (the target is removed again).
int ext_modem_copy_dir(const ssr_state *st, const char *part, const char *src, const char *stamp);

// The uevent netlink socket; the descriptor or -1.
int uevent_open_socket();

// Waits for one message on fd and receives it into buf (at most size - 1
// bytes, always terminated). Any datagram socket serves: the monitor hands
// in the netlink socket, tests a socketpair. Returns the length, or -1 once
// st->stopping is set or the socket has hung up.
int uevent_recv(int fd, char *buf, size_t size, const ssr_state *st);

// The monitor's loop on an open uevent socket; returns when stopped.
void uevent_monitor_loop(int fd, ssr_state *st);

// The no-op handler of SIGUSR2 that lets the tear-down interrupt the side
// threads' waits; installed once by the collector.
void ssr_install_stop_handler();
