// The shell runner and the broadcast sender shared by the whole daemon.
#pragma once

#define VORN_BROADCAST_ACTION "am broadcast -a action.kymbal.from_vornd"

// Runs cmd with system(3); returns the raw status (an exit code of 2 gives
// 512). Callers treat any non-zero result as failure.
int run_command(const char *cmd);

// Runs "<action> <params>" until it succeeds, at most 4 times.
void send_broadcast(const char *action, const char *params);
