// socket.h -- one TCP connection to a server, with every wait bounded by a
// deadline and transport failures reported as kelvane statuses.
//
// The socket blocks, with kernel send and receive timeouts that are lowered
// only when a deadline is closer than they are, so a call that goes well
// costs exactly one send and one receive. Writes never raise SIGPIPE
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
    // Lowers the kernel timeout of option (SO_RCVTIMEO or SO_SNDTIMEO) to
    // what the deadline leaves, when the deadline is the closer bound.
    // False when the deadline has passed.
    bool bound_wait(int option, Micros& current, Deadline deadline);

    int fd_ = -1;
    bool refused_ = false;
    Micros receive_timeout_{0};  // 0: not set yet (the kernel's "forever")
    Micros send_timeout_{0};
};

}  // namespace kelvane

#endif  // KELVANE_SOCKET_H
