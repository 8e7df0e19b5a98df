// node_connection.h -- one connection to one server node: the socket (TLS
// when the settings say so), the protocol reader, the greeting (HELLO, with
// AUTH when the settings have credentials) and request-reply exchanges
// bounded by a deadline. Every thread of a client shares it: exchanges are
// pipelined (pipeline.h). Opening it is one thread's job at a time (the
// router sees to that); the greeting goes out before any other request.
#ifndef KELVANE_NODE_CONNECTION_H
#define KELVANE_NODE_CONNECTION_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "deadline.h"
#include "endpoint.h"
#include "pipeline.h"
#include "reply_sink.h"
#include "settings.h"
#include "socket.h"

namespace kelvane {

// What a node told of itself when greeted: a data node on its own or in a
// cluster, or a Sentinel.
enum class NodeMode : uint8_t { unknown, standalone, cluster, sentinel };

class NodeConnection {
public:
    // Connects (and handshakes, for TLS) within connect_deadline, then
    // greets the server within deadline and learns whether it is a cluster
    // node. KV_SUCCESS or the status that says why not (KV_AUTH_FAILED for
    // refused credentials, KV_TLS_FAILED, KV_CERT_REJECTED), with failure()
    // saying it in words.
    // Whatever the connection was, it is closed first (every exchange under
    // way on it fails).
    int32_t open(const Endpoint& endpoint, const NodeSettings& settings, Deadline connect_deadline,
                 Deadline deadline);
    // From any thread: every exchange under way fails.
    void close() noexcept { pipeline_.close(); }
    bool is_open() const { return pipeline_.is_open(); }
    // The last open() failed because the server refused the connection.
    bool refused() const { return refused_; }
    // Open, and not closed by the server since the last exchange. A
    // connection that answered, or was looked at and found alive, within the
    // last millisecond is taken to be alive without a look (no server
    // restarts that fast), which keeps a system call off every call made
    // back to back, and off the second of two looks in a row.
    // While other calls use it, it is taken to be alive: their replies will
    // tell.
    bool usable() const { return pipeline_.usable(kSurelyAliveFor); }
    NodeMode mode() const { return mode_.load(std::memory_order_acquire); }
    // Counts the connections opened: a number that stays the same for as
    // long as one connection does, and so whatever state the server keeps
    // for it (WATCH).
    uint64_t session() const { return sessions_.load(std::memory_order_acquire); }
    // Why the last failed open() failed, in words: for the thread that
    // opened.
    const std::string& failure() const { return failure_; }

    // Sends bytes, which hold the commands of each sink in turn, and reads
    // each sink's replies (ReplySink::replies()) into it, all before the
    // deadline; a failure says why in words. hold: no other call's request
    // goes out on this connection until the calling thread's release(), or
    // until it closes.
    Exchange exchange(std::string_view bytes, std::initializer_list<ReplySink*> sinks, Deadline deadline,
                      bool hold = false);
    void release();

private:
    Exchange exchange_as(std::string_view bytes, std::initializer_list<ReplySink*> sinks, Deadline deadline,
                         bool hold, bool opener);
    int32_t greet(const NodeSettings& settings, Deadline deadline);

    static constexpr std::chrono::milliseconds kSurelyAliveFor{1};

    Pipeline pipeline_;
    std::atomic<uint64_t> sessions_{0};
    std::atomic<NodeMode> mode_{NodeMode::unknown};
    bool refused_ = false;
    std::string failure_;
};

}  // namespace kelvane

#endif  // KELVANE_NODE_CONNECTION_H
