// The dispatch thread "vornd_dispatch": applies queued node changes.
#pragma once

#include "core/cmd_list.h"

// Thread routine; never returns.
void *vornd_dispatch(void *unused);

// Applies one command taken from the list: finds its node, writes the change
// back to the working configuration and calls the node's enable or disable
// op under the node's lock. The command is freed either way. Returns 0, or -1
// when no node has the command's name.
int vornd_dispatch_cmd(vorn_pending_cmd *cmd);
