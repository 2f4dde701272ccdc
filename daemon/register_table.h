// The register table: the node ops of every log name the daemon knows.
#pragma once

#include <cstddef>

#include "core/node.h"

#define VORN_REGISTER_ROWS 15

extern const vorn_node_ops vorn_register_table[VORN_REGISTER_ROWS];

// Installs the table above as the one the node table binds to.
void vorn_use_register_table();
