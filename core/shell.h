// The shell runner and the broadcast sender shared by the whole daemon.
#pragma once

#include <string>
#include <string_view>

#define VORN_BROADCAST_ACTION "am broadcast -a action.kymbal.from_vornd"

// A word for a shell command line: returned as it is when the shell takes
// every character literally (the usual paths and numbers, so command lines
// read as always), otherwise single-quoted, so that blanks, quotes and
// metacharacters in a path or value stay one word and are never executed.
std::string shell_word(std::string_view word);

// Text for the inside of a double-quoted shell string: \ " $ and ` escaped.
std::string shell_dquoted(std::string_view text);

// Runs cmd with system(3); returns the raw status (an exit code of 2 gives
// 512). Callers treat any non-zero result as failure.
int run_command(const char *cmd);

// Runs "<action> <params>" until it succeeds, at most 4 times.
void send_broadcast(const char *action, const char *params);
