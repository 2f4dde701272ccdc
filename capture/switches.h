// The DynamicDebug and Bluetooth switch operations (enable and disable op of
// their register-table rows; they have no worker).
#pragma once

#include "core/node.h"

int vorn_set_dynamic_debug(vorn_node *node, const vorn_ctrl_msg *cmd);
int vorn_set_bluetooth(vorn_node *node, const vorn_ctrl_msg *cmd);

// Runs " echo -n '<query> +p' > .../dynamic_debug/control" (or "-p" when
// switching off) for every query line of the file at path (a device path; a
// regular file, of which the first 64 KiB are read). Frees path. Returns the
// OR of the commands' results, or -1 when the file cannot be read.
int set_dynamic_debug_mask(char *path, int on);

// Rewrites "BtSnoopLogOutput" in "/etc/bluetooth/bt_stack.conf" through
// "/data/bt_temp.conf", with /system remounted writable meanwhile; 0 or -1.
int update_bt_conf(int on);
