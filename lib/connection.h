// connection.h -- one synchronous hiredis connection to the server, with
// bounded waits and transport failures turned into kelvane statuses.
#ifndef KELVANE_CONNECTION_H
#define KELVANE_CONNECTION_H

#include <hiredis/hiredis.h>
#include <sys/time.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "command.h"

namespace kelvane {

struct ReplyFree {
    void operator()(redisReply* r) const noexcept { freeReplyObject(r); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

struct Endpoint {
    std::string host;
    int port = 0;
    std::optional<std::string> user;
    std::optional<std::string> password;
};

struct Timeouts {
    timeval connect;
    timeval command;
};

class Connection {
public:
    // Connects and authenticates. KV_SUCCESS or the status that says why not.
    int32_t open(const Endpoint& endpoint, const Timeouts& timeouts);
    void close() noexcept { ctx_.reset(); }
    bool is_open() const { return ctx_ != nullptr; }

    // False when the server has closed its end (it stopped or restarted):
    // found out without a round trip, so that a stale connection is replaced
    // before a command is sent on it.
    bool peer_alive() const;

    // Sends one command and waits for its reply. A transport failure closes
    // the connection, so the next call starts on a fresh one.
    int32_t run(Command& command, Reply& reply);

private:
    struct ContextFree {
        void operator()(redisContext* c) const noexcept { redisFree(c); }
    };
    std::unique_ptr<redisContext, ContextFree> ctx_;
};

}  // namespace kelvane

#endif  // KELVANE_CONNECTION_H
