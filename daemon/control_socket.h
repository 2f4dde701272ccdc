// The control socket "/dev/socket/vornd".
#pragma once

#define VORN_SOCKET_NAME "vornd"
#define VORN_SOCKET_PATH "/dev/socket/vornd"

// Returns the listening descriptor (inherited from init, or created, bound,
// opened to everyone and listening), or -1 when no socket could be made.
int vornd_create_socket();

// Serves the listening socket for ever: every connection carries one request,
// read within 5 seconds of the accept, answered and closed. Connections are
// served side by side; of 64 held at once the oldest makes room for a new
// one. An accept failure ends the process.
[[noreturn]] void vornd_serve(int listen_fd);
