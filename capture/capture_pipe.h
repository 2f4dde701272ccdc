// The generic capture worker: picks the capture variant from the node's
// logtype and, for pipe nodes, copies the provider command's output into the
// node's rotated log files.
#pragma once

// Thread routine; the argument is the node record.
void *capture_pipe(void *node);

// SIGUSR1 handler of the workers that block in reads: it only logs, so that
// the signal interrupts the blocking call without ending the process.
void selfsig_handle(int sig);
