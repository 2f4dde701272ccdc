// The register table: the node ops of every log name the daemon knows.
#pragma once

#include <cstddef>

#include "core/node.h"

#define VORN_REGISTER_ROWS 15

extern const vorn_node_ops vorn_register_table[VORN_REGISTER_ROWS];

// Binds the node's ops by log name (ignoring case; unknown names take the
// "Default" row) and returns the row's init op result, 0 when it has none, or
// -1 on failure.
int vorn_node_ops_init(vorn_node *node);

// The same over any table (tests use their own).
int vorn_node_ops_init_with(vorn_node *node, const vorn_node_ops *table, size_t rows);
