// Sends a kernel-style uevent for the external modem's diag_bridge device on
// the kernel uevent netlink group (needs root).
#pragma once

#include <string>

// action is "add" or "remove". 0, or -errno.
int send_diag_bridge_uevent(const std::string &action);
// The message as the kernel formats it: "ACTION@DEVPATH", then KEY=VALUE
// fields, each ending in a zero byte.
std::string diag_bridge_uevent(const std::string &action, unsigned seqnum);
