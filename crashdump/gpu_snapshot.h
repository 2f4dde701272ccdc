// The GPU hang snapshot: the monitor of the kgsl snapshot timestamp and the
// copy of a new snapshot into the node's folder, announced with "ZIP GPU".
#pragma once

#include <atomic>

#define GPU_TAG "gpu"
#define GPU_TIMESTAMP "/sys/class/kgsl/kgsl-3d0/snapshot/timestamp"
#define GPU_DUMP "/sys/class/kgsl/kgsl-3d0/snapshot/dump"
#define GPU_TIMESTAMP_READ 16
#define GPU_FOLDER_LEN 512  // 511 characters and the terminator

// 1 while snapshots are copied (the node's enable and disable ops set it).
extern std::atomic<int> gpu_dump_switch;
// The kgsl timestamp of the last snapshot copied; 0 at start.
extern int gpu_last_hang_timestamp;

// Copies the snapshot into "<log root>/<log_filepath>" when its timestamp is
// new, then broadcasts the notice.
void gpu_snapshot_copy(const char *log_filepath);
