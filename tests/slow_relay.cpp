// slow_relay.cpp -- the relay: one thread accepts, one thread per connection moves bytes both ways with poll().
#include "slow_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace kelvane_test {
namespace {

using Clock = std::chrono::steady_clock;

// How often idle threads look at the stop flag and the mode; also the precision of a trickle.
constexpr int kPollMs = 10;

// Closes a socket on every way out of a connection thread.
class Socket {
public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ >= 0) ::close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

bool send_all(int fd, const char* data, size_t len) {
    while (len > 0) {
        const ssize_t n = ::send(fd, data, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

SlowRelay::SlowRelay(int upstream_port, std::chrono::milliseconds give_up)
    : upstream_port_(upstream_port), give_up_(give_up) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (listener_ >= 0) ::close(listener_);
        throw std::runtime_error("relay cannot listen");
    }
    port_ = ntohs(addr.sin_port);
    acceptor_ = std::thread([this] { accept_connections(); });
}

SlowRelay::~SlowRelay() {
    stopping_ = true;
    acceptor_.join();
    std::lock_guard<std::mutex> lock(connections_mutex_);
    for (std::thread& t : connections_) t.join();
    ::close(listener_);
}

void SlowRelay::pass() { mode_ = Mode::pass; }

void SlowRelay::trickle(std::chrono::milliseconds per_byte) {
    per_byte_ms_ = per_byte.count();
    mode_ = Mode::trickle;
}

void SlowRelay::hold() { mode_ = Mode::hold; }

void SlowRelay::accept_connections() {
    while (!stopping_) {
        pollfd p{listener_, POLLIN, 0};
        if (::poll(&p, 1, kPollMs) <= 0) continue;
        const int fd = ::accept(listener_, nullptr, nullptr);
        if (fd < 0) continue;
        std::lock_guard<std::mutex> lock(connections_mutex_);
        connections_.emplace_back([this, fd] { relay(fd); });
    }
}

void SlowRelay::relay(int client_fd) {
    const Socket client(client_fd);
    const Socket server(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in addr = loopback(upstream_port_);
    if (server.get() < 0 || ::connect(server.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        return;  // the client sees its connection close
    }
    std::string pending;  // reply bytes not passed on yet
    Clock::time_point next_byte{};
    Clock::time_point stalled_since = Clock::now();
    char buf[16384];
    while (!stopping_) {
        const Mode mode = mode_.load();
        const auto now = Clock::now();
        if (pending.empty() || mode == Mode::pass) {
            stalled_since = now;
        } else if (now - stalled_since > give_up_) {
            return;
        }
        const bool send_now = !pending.empty() && (mode == Mode::pass || (mode == Mode::trickle && now >= next_byte));
        pollfd fds[2] = {{client.get(), static_cast<short>(POLLIN | (send_now ? POLLOUT : 0)), 0},
                         {server.get(), POLLIN, 0}};
        if (::poll(fds, 2, kPollMs) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            const ssize_t n = ::recv(client.get(), buf, sizeof buf, 0);
            if (n <= 0) return;  // the client gave up or went away
            if (!send_all(server.get(), buf, static_cast<size_t>(n))) return;
        }
        if (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) {
            const ssize_t n = ::recv(server.get(), buf, sizeof buf, 0);
            if (n <= 0) return;
            pending.append(buf, static_cast<size_t>(n));
        }
        if (send_now && (fds[0].revents & POLLOUT)) {
            const size_t chunk = mode == Mode::trickle ? 1 : pending.size();
            const ssize_t n = ::send(client.get(), pending.data(), chunk, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return;
            if (n > 0) pending.erase(0, static_cast<size_t>(n));
            if (mode == Mode::trickle) next_byte = Clock::now() + std::chrono::milliseconds(per_byte_ms_.load());
        }
    }
}

}  // namespace kelvane_test
