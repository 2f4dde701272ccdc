// Placeholder until the request handler is built: connections are accepted and
// closed without an answer.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/daemon/control_socket.h"
#include "core/node.h"
#include "platform/log.h"

void vornd_serve_connection(int listen_fd) {
    int fd = accept(listen_fd, nullptr, nullptr);
    if (fd < 0) {
        VLOGE("Failed to accept socket.  return:%d  err:%s\n", fd, strerror(errno));
        free(vorn_nodes);
        exit(-1);
    }
    close(fd);
}
