// slow_relay.h -- a TCP relay on loopback between a client and a real Redis server, for tests of a server that
// answers slowly or not at all. Requests always pass straight through to the server; its replies pass at once,
// trickle out one byte at a time, or are held back, as the test switches the relay while it runs.
#ifndef KELVANE_TESTS_SLOW_RELAY_H
#define KELVANE_TESTS_SLOW_RELAY_H

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace kelvane_test {

class SlowRelay {
public:
    // Listens on a free loopback port and forwards every connection to 127.0.0.1:upstream_port. A connection
    // whose replies have been trickled or held for give_up is dropped: a client that never gives up then costs
    // a bounded failure, not a hung test.
    explicit SlowRelay(int upstream_port, std::chrono::milliseconds give_up = std::chrono::seconds(8));
    ~SlowRelay();
    SlowRelay(const SlowRelay&) = delete;
    SlowRelay& operator=(const SlowRelay&) = delete;

    int port() const { return port_; }

    // Replies pass as they come, held bytes included.
    void pass();
    // Replies go out one byte per interval (the first byte of a burst at once), so the line never falls
    // silent long enough for a per-read timeout to fire.
    void trickle(std::chrono::milliseconds per_byte);
    // Replies are kept back: the server works, the client hears nothing.
    void hold();

private:
    enum class Mode { pass, trickle, hold };

    void accept_connections();
    void relay(int client_fd);

    const int upstream_port_;
    const std::chrono::milliseconds give_up_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<Mode> mode_{Mode::pass};
    std::atomic<long long> per_byte_ms_{0};
    std::atomic<bool> stopping_{false};
    std::mutex connections_mutex_;
    std::vector<std::thread> connections_;
    std::thread acceptor_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_SLOW_RELAY_H
