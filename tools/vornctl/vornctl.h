// vornctl: the command-line client of vornd's control socket.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "core/ctrl_msg.h"

// The longest name and mask a message carries.
constexpr int kCtlNameMax = sizeof(vorn_ctrl_msg::logname) - 1;
constexpr int kCtlMaskMax = sizeof(vorn_ctrl_msg::mask) - 1;

// Exit statuses.
enum {
    CTL_OK = 0,
    CTL_NO_REPLY = 1,  // no reply, an unknown node, or nothing appeared in time
    CTL_USAGE = 2,
    CTL_NO_CONNECT = 3,
};

struct ctl_options {
    std::string root;    // --root: the device root the daemon runs under
    std::string socket;  // --socket: overrides the path under the root
    bool json = false;
    bool has_mask = false;
    std::string mask;               // enable --mask
    bool wait = false;              // enable, disable, new-file and archive --wait
    bool follow_log = false;        // agent --follow-log
    std::string log_file;           // agent --log
    bool follow = false;            // tail -f
    int lines = 10;                 // tail -n
    int timeout_sec = -1;           // --timeout; -1: the command's default
    std::vector<std::string> args;  // the command and its operands
};

// The host path of a device path under --root.
std::string ctl_host_path(const ctl_options &o, const std::string &device_path);

// Prints "vornctl: <text>" on stderr and returns status.
int ctl_fail(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// One request. When reply is given, waits for a 256-byte answer whose first
// byte is expect_type; otherwise waits until the daemon closes. Returns
// CTL_OK, CTL_NO_REPLY (closed without an answer, or the timeout) or
// CTL_NO_CONNECT; *why says what happened when it is not CTL_OK. *peer, when
// given, receives the daemon's pid (0 when the socket does not tell).
int ctl_request(const ctl_options &o, const vorn_ctrl_msg &msg, vorn_ctrl_msg *reply,
                uint8_t expect_type, std::string *why, pid_t *peer = nullptr);

// Queries a node by name (cut to 15 characters). Returns as ctl_request.
int ctl_query_node(const ctl_options &o, const std::string &name, vorn_ctrl_msg *node,
                   std::string *why);

// A node's fields decoded from a type-1 reply.
struct ctl_node_view {
    int slot, enable, loglevel, time, size;
    std::string name, mask;
};
ctl_node_view ctl_view_of(const vorn_ctrl_msg &m);

// The global settings: fields decoded from a type-3 reply, and the daemon's
// pid from the socket's peer credentials (0 when unknown).
struct ctl_global {
    int enable, loglevel, time, size;
    std::string log_path;
    pid_t daemon_pid;
};
int ctl_query_global(const ctl_options &o, ctl_global *g, std::string *why);

// JSON text of a string, quotes included.
std::string ctl_json_string(const std::string &s);
// Collapses runs of '/' (the daemon joins paths with "%s/%s").
std::string ctl_clean_path(std::string path);

// The commands. Each takes its operands (args[0] is the command name) and
// returns the exit status.
int cmd_query(const ctl_options &o);
int cmd_set_state(const ctl_options &o);  // enable, disable, new-file
int cmd_global(const ctl_options &o);
int cmd_set_log_path(const ctl_options &o);
int cmd_status(const ctl_options &o);
int cmd_agent(const ctl_options &o);
int cmd_archive(const ctl_options &o);
int cmd_tail(const ctl_options &o);

// Milliseconds of the monotonic clock.
long long ctl_now_ms();
