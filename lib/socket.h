// socket.h -- one TCP connection to a server, with every wait bounded by a
// deadline and transport failures reported as kelvane statuses.
//
// The socket blocks, with kernel send and receive timeouts that are lowered
// only when a deadline is closer than they are, so a call that goes well
// costs exactly one send and one receive; the last stretch of a long wait is
// a ppoll(), which keeps to the deadline where the kernel's timeouts would
// overrun it. Writes never raise SIGPIPE
// (MSG_NOSIGNAL), so the library leaves signals alone.
#ifndef KELVANE_SOCKET_H
#define KELVANE_SOCKET_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "deadline.h"

namespace kelvane {

class Socket {
public:
    Socket() = default;
    ~Socket() { close(); }
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // Connects to host (a name or an address) and port. KV_SUCCESS, or
    // KV_CONNECT_FAILED when the server refused or did not accept in time.
    int32_t connect(const std::string& host, int port, Deadline deadline);
    // Whether the last connect() failed because every address refused it:
    // nothing listens there, and trying again at once would meet the same.
    bool refused() const { return refused_; }
    void close() noexcept;
    bool is_open() const { return fd_ >= 0; }

    // Writes all of bytes. KV_SUCCESS, KV_TIMEOUT or KV_CONNECTION_LOST.
    int32_t send_all(std::string_view bytes, Deadline deadline);

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

    int fd_ = -1;
    bool refused_ = false;
    Micros receive_timeout_{0};  // 0: not set yet (the kernel's "forever")
    Micros send_timeout_{0};
};

}  // namespace kelvane

#endif  // KELVANE_SOCKET_H
