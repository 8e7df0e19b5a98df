// private_network.h -- moves a test process into a network namespace of its own, so that its servers on fixed
// ports (zset always talks to 127.0.0.1:12345) collide neither with other tests running at the same time nor with
// anything on the machine.
#ifndef KELVANE_TESTS_PRIVATE_NETWORK_H
#define KELVANE_TESTS_PRIVATE_NETWORK_H

namespace kelvane_test {

// Enters a new network namespace with its loopback up. False when the process may not (no CAP_SYS_ADMIN): it then
// shares the machine's network.
bool enter_private_network();

// Whether enter_private_network() succeeded in this process.
bool in_private_network();

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_PRIVATE_NETWORK_H
