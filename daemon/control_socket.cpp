#include "daemon/control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/log.h"
#include "platform/root.h"

namespace {

// init passes sockets it created as ANDROID_SOCKET_<name>=<fd>.
int inherited_socket() {
    char var[64];
    snprintf(var, sizeof var, "ANDROID_SOCKET_%s", VORN_SOCKET_NAME);
    const char *val = getenv(var);
    if (val == nullptr || *val == '\0')
        return -1;
    errno = 0;
    char *end = nullptr;
    long fd = strtol(val, &end, 10);
    if (errno != 0 || end == val || *end != '\0' || fd < 0 || fd > 0x7fffffff)
        return -1;
    return static_cast<int>(fd);
}

}  // namespace

int vornd_create_socket() {
    int fd = inherited_socket();
    if (fd >= 0)
        return fd;

    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        VLOGE("Failed to open socke.  err:%s", strerror(errno));
        return -1;
    }
    std::string path = vorn_path(VORN_SOCKET_PATH);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    bool fits = path.size() < sizeof(addr.sun_path);
    if (fits)
        memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        VLOGE("Failed to unlink old socket.  err: %s", strerror(errno));
        close(fd);
        return -1;
    }
    int rc = fits ? bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) : -1;
    if (!fits)
        errno = ENAMETOOLONG;
    if (rc != 0) {
        // Start-up goes on; the serving loop then ends at its first accept.
        VLOGE("Failed to bind socket.  err:%s", strerror(errno));
        close(fd);
        unlink(path.c_str());
    }
    (void)chown(path.c_str(), 0, 0);
    (void)chmod(path.c_str(), 0666);
    listen(fd, 16);
    VLOGD("After listen");
    return fd;
}
