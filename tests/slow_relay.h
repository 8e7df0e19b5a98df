// slow_relay.h -- a relay that can trickle a real server's replies, for the tests of the client's one deadline per
// call: plaintext replies, TLS handshakes and TLS records alike.
#ifndef KELVANE_TESTS_SLOW_RELAY_H
#define KELVANE_TESTS_SLOW_RELAY_H

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "redis_server.h"

namespace kelvane_test {

// A TCP relay on loopback in front of a real server. Requests pass straight through; replies pass at once or,
// while it trickles, one byte every 1.5 s: the line never falls silent long enough for a per-read timeout to
// fire. A connection whose replies have been held back for 8 s is dropped, so a client that never gives up costs
// a bounded failure, not a hung test.
class SlowRelay {
public:
    explicit SlowRelay(int upstream_port) : upstream_(upstream_port) {
        sockaddr_in addr = loopback(0);
        socklen_t len = sizeof addr;
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            throw std::runtime_error("relay cannot listen");
        }
        port_ = ntohs(addr.sin_port);
        acceptor_ = std::thread([this] {
            while (!stopping_) {
                pollfd p{listener_, POLLIN, 0};
                const int fd = ::poll(&p, 1, 10) > 0 ? ::accept(listener_, nullptr, nullptr) : -1;
                if (fd >= 0) connections_.emplace_back([this, fd] { relay(fd); });
            }
        });
    }
    ~SlowRelay() {
        stopping_ = true;
        acceptor_.join();
        for (std::thread& t : connections_) t.join();
        ::close(listener_);
    }
    int port() const { return port_; }
    void trickle(bool on) { trickle_ = on; }

private:
    void relay(int client) {
        const int server = ::socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in addr = loopback(upstream_);
        bool open = ::connect(server, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
        std::string pending;  // reply bytes not passed on yet
        using Clock = std::chrono::steady_clock;
        using namespace std::chrono_literals;
        Clock::time_point next_byte{}, stalled_since = Clock::now();
        char buf[16384];
        while (open && !stopping_) {
            const bool slow = trickle_;
            const auto now = Clock::now();
            if (pending.empty() || !slow) stalled_since = now;
            if (now - stalled_since > 8s) break;
            const bool send_now = !pending.empty() && (!slow || now >= next_byte);
            pollfd fds[2] = {{client, static_cast<short>(POLLIN | (send_now ? POLLOUT : 0)), 0}, {server, POLLIN, 0}};
            if (::poll(fds, 2, 10) < 0 && errno != EINTR) break;
            if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
                const ssize_t n = ::recv(client, buf, sizeof buf, 0);
                open = n > 0 && ::send(server, buf, static_cast<size_t>(n), MSG_NOSIGNAL) == n;
            }
            if (open && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
                const ssize_t n = ::recv(server, buf, sizeof buf, 0);
                open = n > 0;
                if (open) pending.append(buf, static_cast<size_t>(n));
            }
            if (open && send_now && (fds[0].revents & POLLOUT)) {
                const ssize_t n = ::send(client, pending.data(), slow ? 1 : pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                if (n > 0) pending.erase(0, static_cast<size_t>(n));
                next_byte = Clock::now() + 1500ms;
            }
        }
        ::close(server);
        ::close(client);
    }

    const int upstream_;
    const int listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int port_ = 0;
    std::atomic<bool> trickle_{false}, stopping_{false};
    std::vector<std::thread> connections_;  // touched by the acceptor alone until it has stopped
    std::thread acceptor_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_SLOW_RELAY_H
