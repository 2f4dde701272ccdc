// The daemon's main: options, start-up and the serving loop.
#pragma once

#define VORND_VERSION "0.1.0"

// Runs the daemon; returns the process exit status (help and version 0, a
// usage error 2, a start-up failure -1).
int vornd_main(int argc, char **argv);

// Loads the node table from the chosen working document: fills gbl_config
// from the first element, then one node per further element (dropping the
// ones that do not bind) and starts the worker of every enabled node.
// elements is the child-element count. Returns 0, or -1 when the table cannot
// be allocated. start_workers false loads without starting any thread (the
// configuration fuzzer).
int vornd_load_nodes(int elements, bool start_workers = true);

// Frees the node table with the texts its records own (the exit paths, and
// tests that load configurations one after another).
void vornd_free_nodes();
