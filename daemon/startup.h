// The daemon's main: options, start-up and the serving loop.
#pragma once

#define VORND_VERSION "0.1.0"

// Runs the daemon; returns the process exit status (help and version 0, a
// usage error 2, a start-up failure -1).
int vornd_main(int argc, char **argv);
