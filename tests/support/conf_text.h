// Builders of configuration documents for tests.
#pragma once

#include <string>

// A configuration document: root with an optional version, the global
// element's attributes and the node elements (given as raw XML).
std::string make_conf(const char *version, const std::string &global_attrs,
                      const std::string &nodes);

// A pipe-capture node element named name (tag and logname) with extra attrs.
std::string pipe_node(const std::string &name, const std::string &extra = "");
