// Bringing a simulated phone up as a background process and down again.
#pragma once

#include <sys/types.h>

#include <string>

// Starts the phone's server process for root and waits until it serves.
// 0, or 1 with *err.
int sim_up(const std::string &root, std::string *err);
// Stops the server (if any), unmounts and removes the links. Fine on a root
// that is not up, was never up, or whose server died. *note says what it did.
int sim_down(const std::string &root, std::string *note);
// The server's pid, or -1 when none runs.
pid_t sim_server_pid(const std::string &root);
// Running, as opposed to gone or a zombie its parent has not reaped yet.
bool sim_process_running(pid_t pid);
// Whether dir is a mount point now.
bool is_mount_point(const std::string &dir);
// Writes one injection line to the running phone. 0, or -errno.
int sim_inject(const std::string &root, const std::string &line);
