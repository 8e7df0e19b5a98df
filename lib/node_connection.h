// node_connection.h -- one connection to one server node: the socket (TLS
// when the settings say so), the protocol reader, the greeting (HELLO, with
// AUTH when the settings have credentials) and request-reply exchanges
// bounded by a deadline.
#ifndef KELVANE_NODE_CONNECTION_H
#define KELVANE_NODE_CONNECTION_H

#include <array>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "deadline.h"
#include "endpoint.h"
#include "reply_sink.h"
#include "settings.h"
#include "socket.h"

namespace kelvane {

// What a node told of itself when greeted: a data node on its own or in a
// cluster, or a Sentinel.
enum class NodeMode : uint8_t { unknown, standalone, cluster, sentinel };

// How an exchange went. A failed one closes the connection.
struct Exchange {
    int32_t status;  // KV_SUCCESS: every reply arrived (any may be an error reply)
    bool sent;       // the whole request went out, so the server may have run it
};

class NodeConnection {
public:
    // Connects (and handshakes, for TLS) within connect_deadline, then
    // greets the server within deadline and learns whether it is a cluster
    // node. KV_SUCCESS or the status that says why not (KV_AUTH_FAILED for
    // refused credentials, KV_TLS_FAILED, KV_CERT_REJECTED), with failure()
    // saying it in words.
    int32_t open(const Endpoint& endpoint, const NodeSettings& settings, Deadline connect_deadline,
                 Deadline deadline);
    void close() noexcept;
    bool is_open() const { return socket_.is_open(); }
    // The last open() failed because the server refused the connection.
    bool refused() const { return socket_.refused(); }
    // Open, and not closed by the server since the last exchange. A
    // connection that answered, or was looked at and found alive, within the
    // last millisecond is taken to be alive without a look (no server
    // restarts that fast), which keeps a system call off every call made
    // back to back, and off the second of two looks in a row.
    bool usable() const {
        if (Clock::now() - last_alive_ < kSurelyAliveFor) return socket_.is_open();
        if (!socket_.idle_and_alive()) return false;
        last_alive_ = Clock::now();
        return true;
    }
    NodeMode mode() const { return mode_; }
    // Counts the connections opened: a number that stays the same for as
    // long as one connection does, and so whatever state the server keeps
    // for it (WATCH).
    uint64_t session() const { return sessions_; }
    // Why the last failed open or exchange failed, in words.
    const std::string& failure() const { return failure_; }

    // Sends bytes, which hold the commands of each sink in turn, and reads
    // each sink's replies (ReplySink::replies()) into it, all before the
    // deadline.
    Exchange exchange(std::string_view bytes, std::initializer_list<ReplySink*> sinks,
                      Deadline deadline);

private:
    int32_t read_reply(ReplySink& sink, Deadline deadline);
    int32_t greet(const NodeSettings& settings, Deadline deadline);

    static constexpr std::chrono::milliseconds kSurelyAliveFor{1};

    Socket socket_;
    Reader reader_;
    mutable Clock::time_point last_alive_{};  // the last reply, or the last look that found it alive
    uint64_t sessions_ = 0;
    NodeMode mode_ = NodeMode::unknown;
    std::string failure_;
    std::array<char, 16 * 1024> buffer_;
};

}  // namespace kelvane

#endif  // KELVANE_NODE_CONNECTION_H
