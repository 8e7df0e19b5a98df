// socket.h -- one connection to a server (TCP, or a Unix domain socket for
// a host that is a path), plaintext or TLS, with every wait bounded by a
// deadline and transport failures reported as kelvane statuses, with why in
// words.
//
// A plaintext socket blocks, with kernel send and receive timeouts that are
// lowered only when a deadline is closer than they are, so a call that goes
// well costs exactly one send and one receive; the last stretch of a long
// wait is a ppoll(), which keeps to the deadline where the kernel's timeouts
// would overrun it. A TLS socket does not block (tls_session.h). Writes never
// raise SIGPIPE (MSG_NOSIGNAL), so the library leaves signals alone.
#ifndef KELVANE_SOCKET_H
#define KELVANE_SOCKET_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "deadline.h"
#include "tls_session.h"

namespace kelvane {

class Socket {
public:
    Socket() = default;
    ~Socket() { close(); }
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // Connects to host (a name or an address) and port, or to the Unix
    // socket at host when it begins with '/'. KV_SUCCESS, or
    // KV_CONNECT_FAILED when the server refused or did not accept in time.
    int32_t connect(const std::string& host, int port, Deadline deadline);
    // Turns the connection into a TLS one (TlsSession::start).
    int32_t start_tls(const TlsContext& context, const std::string& name, Deadline deadline);
    // Whether the last connect() failed because every address refused it:
    // nothing listens there, and trying again at once would meet the same.
    bool refused() const { return refused_; }
    void close() noexcept;
    bool is_open() const { return fd_ >= 0; }
    bool is_tls() const { return tls_ != nullptr; }
    // Why the last failed connect, send or receive failed, in words. One
    // thread may send while another receives: each keeps its own.
    const std::string& failure() const { return failure_; }
    const std::string& send_failure() const { return send_failure_; }
    const std::string& receive_failure() const { return receive_failure_; }
    // Wakes a thread waiting in send_all() or receive() on this socket,
    // which then fails: for a connection given up while another thread uses
    // it. The socket stays open until close().
    void shut_down() noexcept;

    // Writes all of bytes. KV_SUCCESS, KV_TIMEOUT or KV_CONNECTION_LOST;
    // *written: how many went out.
    int32_t send_all(std::string_view bytes, Deadline deadline, std::size_t* written);

    // Reads whatever has arrived, up to capacity bytes, waiting for the
    // first of them until the deadline. KV_SUCCESS with *received > 0, or
    // KV_TIMEOUT / KV_CONNECTION_LOST.
    int32_t receive(char* buffer, std::size_t capacity, Deadline deadline, std::size_t* received);

    // False when the server has closed its end or sent bytes nobody asked
    // for: found out without waiting, so a stale connection is replaced
    // before a command is sent on it.
    bool idle_and_alive() const;

private:
    using Micros = std::chrono::microseconds;
    // Makes sure the kernel timeout of option (SO_RCVTIMEO or SO_SNDTIMEO)
    // ends before the deadline, left from now, even with the kernel's slack.
    // False when the deadline is too close for the kernel's timer: the wait
    // is then wait_ready()'s.
    bool kernel_wait(int option, Micros& current, Micros left);
    // Waits, to the microsecond, until the socket is ready for events (POLLIN,
    // POLLOUT) or the deadline passes: poll()'s result, 0 at the deadline.
    int wait_ready(short events, Deadline deadline) const;
    // KV_TIMEOUT and KV_CONNECTION_LOST with why (for the latter, errno's
    // words after it) kept for failure().
    static int32_t timed_out(std::string& into, const char* why);
    static int32_t lost(std::string& into, const char* why);

    int fd_ = -1;
    std::unique_ptr<TlsSession> tls_;
    std::string failure_, send_failure_, receive_failure_;
    bool refused_ = false;
    Micros receive_timeout_{0};  // 0: not set yet (the kernel's "forever")
    Micros send_timeout_{0};
};

}  // namespace kelvane

#endif  // KELVANE_SOCKET_H
