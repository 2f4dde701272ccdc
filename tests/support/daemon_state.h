// Helpers for tests that load configurations into the daemon's globals.
#pragma once

#include "tests/support/conf_text.h"
#include "tests/support/temp_root.h"

// Frees the node table and the working document and zeroes the globals. With
// core_rows the node table binds to a table of the same row kinds as the
// daemon's (dump, switch and capture rows) whose ops do nothing.
void reset_daemon_state(bool core_rows = true);
