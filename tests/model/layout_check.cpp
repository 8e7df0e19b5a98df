// layout_check.cpp -- every key on the server, classified and checked.
#include "layout_check.h"

#include "byte_text.h"
#include "raw_redis.h"

namespace kelvane_model {
namespace {

std::vector<std::string> all_keys(RawRedis& redis) {
    std::vector<std::string> keys;
    std::string cursor = "0";
    do {
        RawReply r = redis.run({"SCAN", cursor, "COUNT", "1000"});
        if (r->type != REDIS_REPLY_ARRAY || r->elements != 2) return keys;
        cursor = RawRedis::text(r->element[0]);
        const redisReply* batch = r->element[1];
        for (size_t i = 0; i < batch->elements; ++i) keys.emplace_back(batch->element[i]->str, batch->element[i]->len);
    } while (cursor != "0");
    return keys;
}

bool exists(RawRedis& redis, const std::string& key) { return RawRedis::text(redis.run({"EXISTS", key}).get()) == "1"; }

// Keys may expire while they are looked at (the chaos test gives some an
// expiry of a second or two). A set and its values hash expire in the same
// millisecond, so once the set has gone its hash must have gone too: a rule
// counts as broken only when the hash is still there after its set went.
void check_values_hash(RawRedis& redis, const std::string& hash, const std::string& main, LayoutReport& report) {
    auto fault = [&](const std::string& why) { report.faults.push_back("values hash " + quoted(hash) + ": " + why); };
    const std::string type = RawRedis::text(redis.run({"TYPE", hash}).get());
    if (type == "none") return;  // expired since the scan
    if (type != "hash") return fault("is a " + type + ", not a hash");
    const std::string main_type = RawRedis::text(redis.run({"TYPE", main}).get());
    if (main_type != "zset") {
        if (main_type == "none" && !exists(redis, hash)) return;
        return fault("its main key is " + main_type + ", not a sorted set");
    }
    RawReply fields = redis.run({"HKEYS", hash});
    for (size_t i = 0; i < fields->elements; ++i) {
        const std::string member(fields->element[i]->str, fields->element[i]->len);
        if (redis.run({"ZSCORE", main, member})->type != REDIS_REPLY_NIL) continue;
        if (!exists(redis, main) && !exists(redis, hash)) return;
        fault("holds a value for " + quoted(member) + ", which is not a member of its set");
    }
    const std::string at_main = RawRedis::text(redis.run({"PEXPIRETIME", main}).get());
    const std::string at_hash = RawRedis::text(redis.run({"PEXPIRETIME", hash}).get());
    if (at_main == at_hash) return;
    if ((at_main == "-2" || at_hash == "-2") && !exists(redis, hash)) return;
    fault("expires at " + at_hash + " ms, its set at " + at_main + " ms");
}

}  // namespace

LayoutReport check_layout(int port) {
    RawRedis redis(port);
    LayoutReport report;
    for (const std::string& key : all_keys(redis)) {
        const size_t close = key.find('}');
        if (key.rfind("kv{", 0) != 0 || close == std::string::npos) {
            report.faults.push_back("a key outside kelvane's names: " + quoted(key));
            continue;
        }
        const std::string rest = key.substr(close + 1);
        if (rest.empty()) {
            ++report.main_keys;
            const std::string type = RawRedis::text(redis.run({"TYPE", key}).get());
            if (type != "zset" && type != "set" && type != "none") {
                report.faults.push_back("main key " + quoted(key) + " is a " + type);
            }
        } else if (rest == ":v") {
            ++report.value_hashes;
            check_values_hash(redis, key, key.substr(0, close + 1), report);
        } else {
            report.faults.push_back("a key outside kelvane's names: " + quoted(key));
        }
    }
    return report;
}

}  // namespace kelvane_model
