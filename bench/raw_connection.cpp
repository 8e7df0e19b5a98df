// raw_connection.cpp -- hiredis connections, command statistics and key
// dumps.
#include "raw_connection.h"

#include <algorithm>
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

std::map<std::string, CommandStat> command_stats(RawConnection& admin) {
    Reply info = admin.command({"INFO", "commandstats"});
    std::map<std::string, CommandStat> rows;
    std::istringstream lines(std::string(info->str, info->len));
    std::string line;
    // cmdstat_zadd:calls=3,usec=12,usec_per_call=4.00,rejected_calls=0,failed_calls=0
    while (std::getline(lines, line)) {
        constexpr char kPrefix[] = "cmdstat_";
        if (line.compare(0, sizeof kPrefix - 1, kPrefix) != 0) continue;
        const size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        CommandStat stat;
        const size_t calls = line.find("calls=", colon);
        const size_t usec = line.find("usec=", colon);
        if (calls == std::string::npos || usec == std::string::npos) continue;
        stat.calls = std::stoull(line.substr(calls + 6));
        stat.usec = std::stoull(line.substr(usec + 5));
        rows[line.substr(sizeof kPrefix - 1, colon - (sizeof kPrefix - 1))] = stat;
    }
    return rows;
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
