// The daemon's own command lines (sysfs and debugfs writes as "echo ... >
// FILE", "am broadcast ...", "mount ...", "stop"/"start ...") carried out
// without a shell. The line is still built and logged as the command it
// stands for; only its words are taken from it, so no text inside it (a
// path, a value or a query that came with a request) is ever run.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

// The words of a command line, or false when it holds anything but words
// (plain characters, '...' and "..." quoting with the escapes shell_word and
// shell_dquoted produce, backslash escapes) and ">" tokens: unquoted shell
// operators, substitutions, globs, comments or control characters.
bool split_command_line(const char *line, std::vector<std::string> *words);

// Called in a child between fork and exec: the child gets SIGKILL when the
// daemon goes, however it goes, so no provider outlives it and a restart never
// finds a second copy running. parent is getpid() before the fork.
// Async-signal-safe.
void vorn_child_dies_with_parent(pid_t parent);

// Starts argv[0] searched on PATH with the argument vector, waits for it and
// returns its wait status as system(3) would (127 << 8 when it cannot be
// run, -1 when no process can be made). The child dies with the daemon.
int run_program(const std::vector<std::string> &argv);

// Whether a value (a node's mask) may be pasted into an exec template, which
// runs through the shell: letters, digits, blanks and _ - . / : , = + @ %
// only.
bool template_value_allowed(std::string_view value);

// Carries out one of the daemon's own command lines:
//   echo [-n] WORD... > FILE   writes the words, joined by one blank and
//                              ended by a newline unless -n, into FILE (a
//                              resolved path) with open/write;
//   PROGRAM ARG...             run_program.
// Returns a system(3)-style status: 0 on success; a failed write gives 1 << 8
// with errno telling why; a line that is not of these forms is refused with
// 2 << 8 (EINVAL) and nothing runs. Failures are logged as run_command logs
// them.
int run_daemon_line(const char *line);
