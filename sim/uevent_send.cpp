#include "sim/uevent_send.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

#include "platform/io.h"

std::string diag_bridge_uevent(const std::string &action, unsigned seqnum) {
    const std::string devpath = "/devices/platform/diag_bridge";
    std::string m = action + "@" + devpath;
    m.push_back('\0');
    for (const std::string &kv :
         {"ACTION=" + action, "DEVPATH=" + devpath, std::string("SUBSYSTEM=platform"),
          "SEQNUM=" + std::to_string(seqnum)}) {
        m += kv;
        m.push_back('\0');
    }
    return m;
}

int send_diag_bridge_uevent(const std::string &action) {
    unique_fd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    if (!fd.valid())
        return -errno;
    sockaddr_nl dst{};
    dst.nl_family = AF_NETLINK;
    dst.nl_pid = 0;     // the kernel's side
    dst.nl_groups = 1;  // the group uevent listeners join
    std::string msg = diag_bridge_uevent(action, static_cast<unsigned>(time(nullptr)));
    if (sendto(fd.get(), msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&dst),
               sizeof dst) < 0) {
        // The multicast went out before the kernel's own socket, which takes
        // no input, refused its copy.
        if (errno != ECONNREFUSED)
            return -errno;
    }
    return 0;
}
