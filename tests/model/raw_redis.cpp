// raw_redis.cpp -- one hiredis connection with binary-safe arguments.
#include "raw_redis.h"

#include <stdexcept>

namespace kelvane_model {

RawRedis::RawRedis(int port) {
    timeval timeout{5, 0};
    context_.reset(redisConnectWithTimeout("127.0.0.1", port, timeout));
    if (!context_ || context_->err != 0) throw std::runtime_error("cannot connect to the test server");
    redisSetTimeout(context_.get(), timeout);
}

RawReply RawRedis::run(const std::vector<std::string>& argv) {
    std::vector<const char*> ptrs;
    std::vector<size_t> lens;
    for (const auto& a : argv) {
        ptrs.push_back(a.data());
        lens.push_back(a.size());
    }
    void* r = redisCommandArgv(context_.get(), static_cast<int>(argv.size()), ptrs.data(), lens.data());
    if (r == nullptr) throw std::runtime_error("test connection broke: " + std::string(context_->errstr));
    return RawReply(static_cast<redisReply*>(r));
}

std::string RawRedis::text(const redisReply* r) {
    switch (r->type) {
        case REDIS_REPLY_INTEGER: return std::to_string(r->integer);
        case REDIS_REPLY_NIL: return "(nil)";
        case REDIS_REPLY_ERROR: return "(error) " + std::string(r->str, r->len);
        case REDIS_REPLY_ARRAY: return "(array of " + std::to_string(r->elements) + ")";
        default: return std::string(r->str, r->len);
    }
}

}  // namespace kelvane_model
