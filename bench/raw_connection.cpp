// raw_connection.cpp -- hiredis connections, command statistics and key
// dumps.
#include "raw_connection.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kelvane_bench {

RawConnection::RawConnection(int port) {
    timeval connect_timeout{2, 0};
    ctx_ = redisConnectWithTimeout("127.0.0.1", port, connect_timeout);
    if (ctx_ == nullptr || ctx_->err != 0) {
        std::string why = ctx_ ? ctx_->errstr : "out of memory";
        if (ctx_) redisFree(ctx_);
        throw std::runtime_error("cannot connect to redis-server: " + why);
    }
    // Generous: a 100,000-member reply on a busy shared machine is slow.
    timeval command_timeout{60, 0};
    redisSetTimeout(ctx_, command_timeout);
}

RawConnection::~RawConnection() { redisFree(ctx_); }

Reply RawConnection::command(const std::vector<std::string>& argv) {
    std::vector<const char*> ptrs;
    std::vector<size_t> lens;
    for (const auto& a : argv) {
        ptrs.push_back(a.data());
        lens.push_back(a.size());
    }
    append(static_cast<int>(ptrs.size()), ptrs.data(), lens.data());
    Reply reply = next_reply();
    if (reply->type == REDIS_REPLY_ERROR) {
        throw std::runtime_error(argv[0] + ": " + std::string(reply->str, reply->len));
    }
    return reply;
}

void RawConnection::append(int argc, const char** argv, const size_t* lens) {
    if (redisAppendCommandArgv(ctx_, argc, argv, lens) != REDIS_OK) {
        throw std::runtime_error(std::string("hiredis: ") + ctx_->errstr);
    }
}

Reply RawConnection::next_reply() {
    void* raw = nullptr;
    if (redisGetReply(ctx_, &raw) != REDIS_OK || raw == nullptr) {
        throw std::runtime_error(std::string("hiredis: ") + ctx_->errstr);
    }
    return Reply(static_cast<redisReply*>(raw));
}

double server_cpu_seconds(RawConnection& admin) {
    Reply info = admin.command({"INFO", "cpu"});
    const std::string text(info->str, info->len);
    double total = 0;
    for (const char* field : {"used_cpu_sys_main_thread:", "used_cpu_user_main_thread:"}) {
        const size_t at = text.find(field);
        if (at == std::string::npos) throw std::runtime_error(std::string("INFO cpu has no ") + field);
        total += std::stod(text.substr(at + std::strlen(field)));
    }
    return total;
}

std::string server_version(RawConnection& admin) {
    Reply info = admin.command({"INFO", "server"});
    const std::string text(info->str, info->len);
    const size_t at = text.find("redis_version:");
    if (at == std::string::npos) return "?";
    return text.substr(at + 14, text.find_first_of("\r\n", at) - at - 14);
}

std::string dump_sorted_set(RawConnection& admin, const std::string& main_key,
                            const std::string& values_key) {
    Reply type = admin.command({"TYPE", main_key});
    std::string out = "type=" + std::string(type->str, type->len) + "\n";
    Reply set = admin.command({"ZRANGE", main_key, "0", "-1", "WITHSCORES"});
    for (size_t i = 0; i + 1 < set->elements; i += 2) {
        out += std::string(set->element[i]->str, set->element[i]->len) + " " +
               std::string(set->element[i + 1]->str, set->element[i + 1]->len) + "\n";
    }
    Reply hash = admin.command({"HGETALL", values_key});
    std::vector<std::pair<std::string, std::string>> values;
    for (size_t i = 0; i + 1 < hash->elements; i += 2) {
        values.emplace_back(std::string(hash->element[i]->str, hash->element[i]->len),
                            std::string(hash->element[i + 1]->str, hash->element[i + 1]->len));
    }
    std::sort(values.begin(), values.end());
    for (const auto& [member, value] : values) out += "value " + member + "=" + value + "\n";
    return out;
}

}  // namespace kelvane_bench
