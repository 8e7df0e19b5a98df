// workload.cpp -- what every workload shares: its keys and status words.
#include "workload.h"

#include <utility>

namespace kelvane_bench {

Workload::Workload(std::string name, const std::string& tag, double speed_target,
                   double server_target)
    : name_(std::move(name)), speed_target_(speed_target), server_target_(server_target) {
    keys_.lib = "L:" + tag;
    keys_.lib_main = "kv{" + keys_.lib + "}";
    keys_.lib_values = keys_.lib_main + ":v";
    keys_.raw_main = "kv{R:" + tag + "}";
    keys_.raw_values = keys_.raw_main + ":v";
}

void Workload::before_call(Sides&, Side, std::uint64_t) {}

std::string status_text(int32_t status) {
    switch (status) {
        case KV_SUCCESS: return "KV_SUCCESS";
        case KV_WRONG_REPLY: return "KV_WRONG_REPLY";
        case KV_ALREADY_EXISTS: return "KV_ALREADY_EXISTS";
        case KV_NOTFOUND: return "KV_NOTFOUND";
        case KV_INVALID_PARAMETER: return "KV_INVALID_PARAMETER";
        case KV_NO_SET_KEY: return "KV_NO_SET_KEY";
        case KV_NO_SERVER: return "KV_NO_SERVER";
        case KV_CONNECT_FAILED: return "KV_CONNECT_FAILED";
        case KV_TIMEOUT: return "KV_TIMEOUT";
        case KV_CONNECTION_LOST: return "KV_CONNECTION_LOST";
        case KV_SERVER_ERROR: return "KV_SERVER_ERROR";
        case KV_NO_MEMORY: return "KV_NO_MEMORY";
        case KV_AUTH_FAILED: return "KV_AUTH_FAILED";
        default: return "status " + std::to_string(status);
    }
}

std::string reply_failure(const redisReply* reply, const char* command) {
    if (reply == nullptr) return std::string(command) + ": no reply";
    if (reply->type == REDIS_REPLY_ERROR) {
        return std::string(command) + ": " + std::string(reply->str, reply->len);
    }
    return "";
}

}  // namespace kelvane_bench
