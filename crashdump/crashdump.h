// Crash-dump nodes: the subsystem-restart ramdump collector ("ssr") and the
// GPU hang snapshot ("GPU").
#pragma once

#include "core/node.h"

int ssr_enable(vorn_node *node, const vorn_ctrl_msg *cmd);
int ssr_disable(vorn_node *node, const vorn_ctrl_msg *cmd);
void *ssr_thread(void *node);

int gpu_dump_enable(vorn_node *node, const vorn_ctrl_msg *cmd);
int gpu_dump_disable(vorn_node *node, const vorn_ctrl_msg *cmd);
void *gpu_monitor_thread(void *node);
