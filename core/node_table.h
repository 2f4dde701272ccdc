// The node table: loading it from the chosen configuration, binding each node
// to its row of a register table by log name, lookup by name, and freeing it.
#pragma once

#include <cstddef>

#include "core/node.h"

// The rows nodes are bound to. The daemon installs its register table before
// loading; tests install tables of their own.
void vorn_set_register_table(const vorn_node_ops *table, size_t rows);

// Binds the node's ops by log name (ignoring case; unknown names take the
// "Default" row) and returns the row's init op result, 0 when it has none, or
// -1 on failure.
int vorn_node_ops_init(vorn_node *node);

// The same over any table.
int vorn_node_ops_init_with(vorn_node *node, const vorn_node_ops *table, size_t rows);

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

// Slot index (1-254) of the node named exactly logname, or 255.
uint8_t find_node_index(const char *logname);
#define VORN_NO_NODE 255
