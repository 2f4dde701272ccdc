// The DumpParser node: queue of DDR dump directories and the kernel-log
// extractor.
#pragma once

#include "core/node.h"

int dumpparser_enable(vorn_node *node, const vorn_ctrl_msg *cmd);
int dumpparser_disable(vorn_node *node, const vorn_ctrl_msg *cmd);
void *dumpparser_produce_thread(void *node);
