// Exec capture: a provider program that writes its own log files, started
// through the shell from a command template and stopped with its children.
#pragma once

#include <sys/types.h>

#define VORN_EXEC_TEMPLATE_LEN 100  // 99 characters and the terminator
#define VORN_EXEC_CHILDREN 31       // tracked children of the shell

// Stops the process in *slot: SIGUSR1, then SIGCONT, then one blocking wait;
// *slot becomes -1. Returns 0, or -1 (nothing done) when *slot < 1.
int stop_process(pid_t *slot);

// The command line of a template: "#path", "#mask" and then, when mask_link
// is not null, "#mask_link" are each replaced at their first occurrence.
// Returns a heap string, or null when memory runs out.
char *exec_build_command(const char *tmpl, const char *path, const char *mask,
                         const char *mask_link);

// Scans proc_dir (a host path) once for the processes whose parent is
// parent; fills at most VORN_EXEC_CHILDREN pids into children and ends the
// list with 0. Returns the number found, or -1 when proc_dir cannot be opened.
int exec_scan_children(const char *proc_dir, pid_t parent, pid_t *children);
