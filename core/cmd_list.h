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

// Changes waiting at most; a client that floods the socket must not grow the
// daemon without bound.
#define VORN_CMD_LIST_MAX 1024

// Makes the list empty and initialises its mutex (start-up, before any thread).
void cmd_list_init();

// Links cmd at the tail; takes cmd_list_mutex. False, with cmd left to the
// caller, when VORN_CMD_LIST_MAX commands are already waiting.
bool cmd_list_append(vorn_pending_cmd *cmd);

// Unlinks and returns the head, or null when empty. The caller holds
// cmd_list_mutex.
vorn_pending_cmd *cmd_list_take_locked();
