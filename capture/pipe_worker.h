// The pipe capture variant: a node's provider command line runs through the
// shell and its standard output is copied into the node's rotated files.
#pragma once

#include "core/node.h"

// Runs the pipe variant on the node's worker thread. Never returns.
[[noreturn]] void capture_pipe_output(vorn_node *node);

// A running provider command: the read end of its output pipe and its pid.
struct capture_child {
    int fd;
    int pid;
};

// Stops a provider: SIGHUP, a blocking wait, then closes the pipe and frees
// the record. Returns the wait status, the failed wait's result, or -1 for no
// record.
int stop_child(capture_child *child);
