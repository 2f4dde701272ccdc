// The generic capture worker: picks the capture variant from the node's
// logtype and, for pipe nodes, copies the provider command's output into the
// node's rotated log files.
#pragma once

// Thread routine; the argument is the node record.
void *capture_pipe(void *node);

// A running provider command: the read end of its output pipe and its pid.
struct capture_child {
    int fd;
    int pid;
};

// Stops a provider: SIGHUP, a blocking wait, then closes the pipe and frees
// the record. Returns the wait status, the failed wait's result, or -1 for no
// record.
int stop_child(capture_child *child);

// SIGUSR1 handler of the workers that block in reads: it only logs, so that
// the signal interrupts the blocking call without ending the process.
void selfsig_handle(int sig);
