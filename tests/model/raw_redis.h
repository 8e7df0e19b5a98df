// raw_redis.h -- a plain hiredis connection for the tests' own look at the
// server (its keys, their expiry, FUNCTION FLUSH, CLIENT KILL), next to the
// library rather than through it.
#ifndef KELVANE_TESTS_MODEL_RAW_REDIS_H
#define KELVANE_TESTS_MODEL_RAW_REDIS_H

#include <hiredis/hiredis.h>

#include <memory>
#include <string>
#include <vector>

namespace kelvane_model {

struct ReplyDeleter {
    void operator()(redisReply* r) const { freeReplyObject(r); }
};
using RawReply = std::unique_ptr<redisReply, ReplyDeleter>;

class RawRedis {
public:
    // Throws std::runtime_error when nothing answers on 127.0.0.1:port.
    explicit RawRedis(int port);
    // Runs one command; throws on a broken connection, returns error replies.
    RawReply run(const std::vector<std::string>& argv);
    // The reply as text: strings and status as they are, integers in decimal,
    // nil as "(nil)", errors prefixed "(error) ".
    static std::string text(const redisReply* r);

private:
    struct ContextDeleter {
        void operator()(redisContext* c) const { redisFree(c); }
    };
    std::unique_ptr<redisContext, ContextDeleter> context_;
};

}  // namespace kelvane_model

#endif  // KELVANE_TESTS_MODEL_RAW_REDIS_H
