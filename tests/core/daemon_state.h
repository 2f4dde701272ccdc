// Helpers for tests that load configurations into the daemon's globals.
#pragma once

#include <string>

#include "tests/support/conf_text.h"
#include "tests/support/temp_root.h"

// Frees the node table and the working document and zeroes the globals.
void reset_daemon_state();
