// The generic capture worker: picks the capture variant from the node's
// logtype and, for pipe nodes, copies the provider command's output into the
// node's rotated log files.
#pragma once

// Thread routine; the argument is the node record.
void *capture_pipe(void *node);
