// Node operations shared by every register-table row: the init checks, the
// state setter of the capture rows, the enable/disable entry points, worker
// thread creation and the lookup by name.
#pragma once

#include <pthread.h>

#include "core/node.h"

// Init ops. Each returns 0 when the node may be kept, -1 otherwise.
int check_dump_ops(vorn_node *node, const vorn_node_ops *row);
int check_switch_ops(vorn_node *node, const vorn_node_ops *row);
int check_capture_ops(vorn_node *node, const vorn_node_ops *row);

// Enable and disable op of the capture rows: stores bit 0 of the command's
// enable byte and its mask.
int set_node_state(vorn_node *node, const vorn_ctrl_msg *cmd);

// Call the bound row's enable / disable op.
int vorn_node_enable(vorn_node *node, const vorn_ctrl_msg *cmd);
int vorn_node_disable(vorn_node *node, const vorn_ctrl_msg *cmd);

// Starts the node's worker thread, detached and named "vornd_" + logname.
void vorn_node_create_work_thread(vorn_node *node);

// Creates a detached thread and names it; 0 or -1.
int start_detached_thread(void *(*routine)(void *), void *arg, const char *name);

// Creates a thread with attr that names itself name (cut to 15 characters)
// before it runs routine; when the naming fails it logs rename_failure as it
// stands (null: a line with the error). Returns pthread_create's result.
int vorn_create_named_thread(const pthread_attr_t *attr, void *(*routine)(void *), void *arg,
                             const char *name, const char *rename_failure);
