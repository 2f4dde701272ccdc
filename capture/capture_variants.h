// The capture variants that capture_pipe hands a node to, by capture kind.
// Each is called on the node's worker thread with the node record.
#pragma once

#include "core/node.h"

// Exec capture (kind 0x40): runs the templated command line, which writes its
// own files; returns 0 or -1 when it ends (only when memory runs out).
int capture_exec(vorn_node *node);

// Device-node reader with the pre-log buffer (kind 0x00). Never returns.
void capture_devnode(vorn_node *node);

// Reader of up to four device nodes (kind 0xC0). Never returns.
void capture_multi_devnode(vorn_node *node);

// Logd buffer capture (log type 2 on platform level 20 and up). Never returns.
void capture_logd(vorn_node *node);
