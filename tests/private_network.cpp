// private_network.cpp -- unshare(CLONE_NEWNET) and bringing "lo" up.
#include "private_network.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace kelvane_test {
namespace {
bool g_private = false;
}

bool enter_private_network() {
    if (g_private) return true;
    if (unshare(CLONE_NEWNET) != 0) return false;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    if (up) {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        up = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(fd);
    g_private = up;
    return up;
}

bool in_private_network() { return g_private; }

}  // namespace kelvane_test
