// The DynamicDebug and Bluetooth switch operations (enable and disable op of
// their register-table rows; they have no worker).
#pragma once

#include "core/node.h"

int vorn_set_dynamic_debug(vorn_node *node, const vorn_ctrl_msg *cmd);
int vorn_set_bluetooth(vorn_node *node, const vorn_ctrl_msg *cmd);
