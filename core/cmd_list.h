// The pending command list: type-2 requests queued by the socket thread for
// the dispatch thread, first in first out.
#pragma once

#include <pthread.h>

#include "core/ctrl_msg.h"

struct vorn_pending_cmd {
    vorn_ctrl_msg msg;  // a copy of the whole request
    vorn_pending_cmd *next;
};

extern pthread_mutex_t cmd_list_mutex;
extern vorn_pending_cmd *cmd_list_head;
extern vorn_pending_cmd **cmd_list_tail;  // where the next command is linked

// Makes the list empty and initialises its mutex (start-up, before any thread).
void cmd_list_init();

// Links cmd at the tail; takes cmd_list_mutex.
void cmd_list_append(vorn_pending_cmd *cmd);

// Unlinks and returns the head, or null when empty. The caller holds
// cmd_list_mutex.
vorn_pending_cmd *cmd_list_take_locked();
