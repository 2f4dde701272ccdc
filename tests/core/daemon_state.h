// Helpers for tests that load configurations into the daemon's globals.
#pragma once

#include <string>

#include "tests/support/temp_root.h"

// Frees the node table and the working document and zeroes the globals.
void reset_daemon_state();

// A configuration document: root with an optional version, the global
// element's attributes and the node elements (given as raw XML).
std::string make_conf(const char *version, const std::string &global_attrs,
                      const std::string &nodes);

// A pipe-capture node element named name (tag and logname) with extra attrs.
std::string pipe_node(const std::string &name, const std::string &extra = "");
