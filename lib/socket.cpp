// socket.cpp -- connecting, sending and receiving with deadlines.
#include "socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "endpoint.h"
#include "kelvane.h"

namespace kelvane {
namespace {

// The kernel keeps a socket's timeout on its timer wheel, whose slots grow
// coarser the further off they are: a wait of one second may end 30 ms late,
// one of a few seconds a quarter of a second late (up to about an eighth of
// the wait, and a tick). So the kernel is only ever given a timeout that ends
// before the deadline whatever its slack, and the rest of a wait that runs
// that long is waited out with ppoll(), whose timer keeps to microseconds.
// kTick: the longest tick a kernel has (100 Hz), twice over.
constexpr std::chrono::microseconds kTick{20000};

std::chrono::microseconds before_any_slack(std::chrono::microseconds left) {
    return left - left / 4 - kTick;
}

struct AddrInfoFree {
    void operator()(addrinfo* a) const noexcept { freeaddrinfo(a); }
};

int poll_millis(Deadline deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline.remaining()).count();
    return left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
}

// Waits until a non-blocking connect on fd completes or the deadline passes;
// errno says why it did not.
bool finish_connect(int fd, Deadline deadline) {
    for (;;) {
        pollfd p{fd, POLLOUT, 0};
        const int n = poll(&p, 1, poll_millis(deadline));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        int error = 0;
        socklen_t len = sizeof error;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0) return false;
        errno = error;
        return error == 0;
    }
}

// A connected socket on address, or -1 with errno saying why (ETIMEDOUT
// when the deadline passed first).
int try_address(int family, const sockaddr* address, socklen_t length, Deadline deadline) {
    const int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, address, length) == 0 ||
        (errno == EINPROGRESS && finish_connect(fd, deadline))) {
        // From here on the socket blocks; kernel timeouts bound each wait.
        const int flags = fcntl(fd, F_GETFL);
        if (flags >= 0 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0) return fd;
    }
    const int error = errno == EINPROGRESS ? ETIMEDOUT : errno;
    ::close(fd);
    errno = error;
    return -1;
}

}  // namespace

Socket::Socket(Socket&& other) noexcept { *this = std::move(other); }

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.fd_;
        tls_ = std::move(other.tls_);
        refused_ = other.refused_;
        receive_timeout_ = other.receive_timeout_;
        send_timeout_ = other.send_timeout_;
        other.fd_ = -1;
    }
    return *this;
}

int32_t Socket::connect(const std::string& host, int port, Deadline deadline) {
    close();
    refused_ = false;
    if (is_socket_path(host)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (host.size() >= sizeof address.sun_path) {
            failure_ = "the socket path is too long";
            return KV_CONNECT_FAILED;
        }
        std::memcpy(address.sun_path, host.c_str(), host.size() + 1);
        fd_ = try_address(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof address, deadline);
        if (fd_ >= 0) return KV_SUCCESS;
        // No socket file, or nobody listening on it: trying again at once
        // would meet the same.
        refused_ = errno == ECONNREFUSED || errno == ENOENT;
        failure_ = std::string("cannot connect: ") + std::strerror(errno);
        return KV_CONNECT_FAILED;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (const int e = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found); e != 0) {
        failure_ = std::string("cannot resolve the host: ") + gai_strerror(e);
        return KV_CONNECT_FAILED;
    }
    std::unique_ptr<addrinfo, AddrInfoFree> addresses(found);
    failure_ = "cannot connect: no time left";
    bool all_refused = true, tried = false;
    for (const addrinfo* a = addresses.get(); a != nullptr && !deadline.passed(); a = a->ai_next) {
        const int fd = try_address(a->ai_family, a->ai_addr, a->ai_addrlen, deadline);
        tried = true;
        if (fd < 0) {
            all_refused = all_refused && errno == ECONNREFUSED;
            failure_ = std::string("cannot connect: ") + std::strerror(errno);
            continue;
        }
        fd_ = fd;
        receive_timeout_ = send_timeout_ = Micros{0};
        const int on = 1;
        // Requests are written whole; waiting to coalesce them only adds latency.
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
        return KV_SUCCESS;
    }
    refused_ = tried && all_refused;
    return KV_CONNECT_FAILED;
}

int32_t Socket::start_tls(const TlsContext& context, const std::string& name, Deadline deadline) {
    // TLS waits in poll(), so that a record that trickles in cannot stretch
    // a read past the deadline as blocking reads with kernel timeouts could.
    const int flags = fcntl(fd_, F_GETFL);
    if (flags < 0 || fcntl(fd_, F_SETFL, flags | O_NONBLOCK) != 0) {
        failure_ = std::string("cannot set up the socket: ") + std::strerror(errno);
        close();
        return KV_CONNECT_FAILED;
    }
    const int32_t status = TlsSession::start(fd_, context, name, deadline, &tls_, &failure_);
    if (status != KV_SUCCESS) close();
    return status;
}

void Socket::close() noexcept {
    tls_.reset();  // before its socket goes
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool Socket::kernel_wait(int option, Micros& current, Micros left) {
    const Micros latest = before_any_slack(left);
    if (latest <= Micros::zero()) return false;
    if (current > Micros::zero() && current <= latest) return true;
    // Half the time left, so that the next calls, whose deadlines are as far
    // off, keep it without a system call of their own.
    const Micros wanted = std::min(left / 2, latest);
    timeval tv{static_cast<time_t>(wanted.count() / 1000000),
               static_cast<suseconds_t>(wanted.count() % 1000000)};
    if (setsockopt(fd_, SOL_SOCKET, option, &tv, sizeof tv) != 0) return false;
    current = wanted;
    return true;
}

int32_t Socket::timed_out(std::string& into, const char* why) {
    into = why;
    return KV_TIMEOUT;
}

int32_t Socket::lost(std::string& into, const char* why) {
    into = std::string(why) + std::strerror(errno);
    return KV_CONNECTION_LOST;
}

void Socket::shut_down() noexcept {
    if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
}

int Socket::wait_ready(short events, Deadline deadline) const {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.remaining());
        if (left <= std::chrono::nanoseconds::zero()) return 0;
        const timespec ts{static_cast<time_t>(left.count() / 1000000000),
                          static_cast<long>(left.count() % 1000000000)};
        pollfd p{fd_, events, 0};
        const int n = ppoll(&p, 1, &ts, nullptr);
        if (n > 0 || (n < 0 && errno != EINTR)) return n;
    }
}

int32_t Socket::send_all(std::string_view bytes, Deadline deadline, std::size_t* written) {
    std::size_t& done = *written;
    done = 0;
    if (fd_ < 0) return KV_CONNECTION_LOST;
    if (tls_) return tls_->send_all(bytes, deadline, written, &send_failure_);
    bool precise = false;  // the kernel's timeout has run out once: the rest is ppoll's
    while (done < bytes.size()) {
        const auto left = std::chrono::duration_cast<Micros>(deadline.remaining());
        if (left <= Micros::zero()) return timed_out(send_failure_, "could not send within the deadline");
        int flags = MSG_NOSIGNAL;
        if (precise || !kernel_wait(SO_SNDTIMEO, send_timeout_, left)) {
            const int ready = wait_ready(POLLOUT, deadline);
            if (ready == 0) return timed_out(send_failure_, "could not send within the deadline");
            if (ready < 0) return lost(send_failure_, "the connection broke while sending: ");
            flags |= MSG_DONTWAIT;
        }
        const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, flags);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            precise = true;
        } else {
            return lost(send_failure_, "the connection broke while sending: ");
        }
    }
    return KV_SUCCESS;
}

int32_t Socket::receive(char* buffer, std::size_t capacity, Deadline deadline,
                        std::size_t* received) {
    *received = 0;
    if (fd_ < 0) return KV_CONNECTION_LOST;
    if (tls_) return tls_->receive(buffer, capacity, deadline, received, &receive_failure_);
    bool precise = false;  // the kernel's timeout has run out once: the rest is ppoll's
    for (;;) {
        const auto left = std::chrono::duration_cast<Micros>(deadline.remaining());
        if (left <= Micros::zero()) return timed_out(receive_failure_, "no reply within the deadline");
        int flags = 0;
        if (precise || !kernel_wait(SO_RCVTIMEO, receive_timeout_, left)) {
            const int ready = wait_ready(POLLIN, deadline);
            if (ready == 0) return timed_out(receive_failure_, "no reply within the deadline");
            if (ready < 0) return lost(receive_failure_, "the connection broke: ");
            flags = MSG_DONTWAIT;
        }
        const ssize_t n = ::recv(fd_, buffer, capacity, flags);
        if (n > 0) {
            *received = static_cast<std::size_t>(n);
            return KV_SUCCESS;
        }
        if (n == 0) {
            receive_failure_ = "the server closed the connection";
            return KV_CONNECTION_LOST;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return lost(receive_failure_, "the connection broke: ");
        precise = true;
    }
}

bool Socket::idle_and_alive() const {
    if (fd_ < 0 || (tls_ && tls_->has_pending())) return false;
    // Under TLS too: a server that closes sends an alert first, and nothing
    // else arrives unasked between a reply and the next command.
    char byte;
    const ssize_t n = ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n == 0) return false;  // orderly shutdown by the server
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    return false;  // bytes nobody asked for: the stream is out of step
}

}  // namespace kelvane
