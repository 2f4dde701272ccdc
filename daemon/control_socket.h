// The control socket "/dev/socket/vornd".
#pragma once

#define VORN_SOCKET_NAME "vornd"
#define VORN_SOCKET_PATH "/dev/socket/vornd"

// Returns the listening descriptor (inherited from init, or created, bound,
// opened to everyone and listening), or -1 when no socket could be made.
int vornd_create_socket();

// Serves one connection on the listening socket: accept, read one request,
// answer it and close. An accept failure ends the process.
void vornd_serve_connection(int listen_fd);
