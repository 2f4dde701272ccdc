// The generic capture worker of every capture row of the register table: it
// picks the capture variant from the node's logtype (pipe, exec, device node,
// several device nodes, or a logd buffer) and runs it on the node's thread.
#pragma once

// Thread routine; the argument is the node record.
void *capture_pipe(void *node);
