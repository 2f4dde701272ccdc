// The node record, the register-table row shape and the node table.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "core/ctrl_msg.h"

struct vorn_node;

// One row of the register table: a log name and the node ops bound to it.
struct vorn_node_ops {
    const char *logname;
    int (*init)(vorn_node *node, const vorn_node_ops *row);
    int (*enable)(vorn_node *node, const vorn_ctrl_msg *cmd);
    int (*disable)(vorn_node *node, const vorn_ctrl_msg *cmd);
    void *(*work)(void *node);  // thread routine; its argument is the node record
};

// Capture kinds: the two top bits of logtype.
#define VORN_LOGTYPE_KIND_MASK 0xC0
#define VORN_KIND_DEVNODE 0x00  // device-node reader with pre-log buffer
#define VORN_KIND_EXEC 0x40
#define VORN_KIND_PIPE 0x80
#define VORN_KIND_MULTIDEV 0xC0
#define VORN_LOGTYPE_DUMP 0x20  // crash-dump kinds
#define VORN_LOGTYPE_TYPE_MASK 0x0F
#define VORN_LOGTYPE_ANDROID_LOG 2  // the source is an Android log buffer

#define VORN_LOGNAME_LEN 16
#define VORN_MASK_LEN 100

struct vorn_node {
    pthread_mutex_t lock;    // initialised at load for slots 1 and up
    uint64_t worker_thread;  // the running worker's pthread id, 0 when none
    // logid..time are laid out back to back: the configuration reader stores
    // whole 32-bit values at these places (see config.cpp).
    uint8_t logid;
    uint8_t enable;
    uint8_t loglevel;
    uint8_t logtype;
    int32_t time;
    int32_t size;  // byte budget of all the node's files; 0 = the global size
    char *log_provider;
    char *log_filepath;
    char *mask_link;
    uint8_t pending_change;
    char logname[VORN_LOGNAME_LEN];
    char mask[VORN_MASK_LEN];
    uint8_t new_file_request;
    const vorn_node_ops *ops;
};

static_assert(offsetof(vorn_node, enable) == offsetof(vorn_node, logid) + 1);
static_assert(offsetof(vorn_node, loglevel) == offsetof(vorn_node, logid) + 2);
static_assert(offsetof(vorn_node, logtype) == offsetof(vorn_node, logid) + 3);
static_assert(offsetof(vorn_node, time) == offsetof(vorn_node, logid) + 4);
static_assert(offsetof(vorn_node, size) == offsetof(vorn_node, logid) + 8);

// The node table: slot 0 belongs to the global element and is never a node;
// nodes occupy slots 1 .. vorn_node_count - 1, and one more zeroed record
// follows so that find_node_index's last probe reads an empty name.
extern vorn_node *vorn_nodes;
extern int vorn_node_count;

// RAII holder of a node's lock.
class vorn_node_guard {
  public:
    explicit vorn_node_guard(vorn_node *node) : node_(node) { pthread_mutex_lock(&node_->lock); }
    ~vorn_node_guard() { pthread_mutex_unlock(&node_->lock); }
    vorn_node_guard(const vorn_node_guard &) = delete;
    vorn_node_guard &operator=(const vorn_node_guard &) = delete;

  private:
    vorn_node *node_;
};
