// api_writes.cpp -- the sorted-set writes. Each is one call of a server
// function (kelvane.lua), which applies the time-to-live rule.
#include <cstring>

#include "api_common.h"
#include "memory_manager.h"
#include "replies.h"
#include "server_keys.h"

using kelvane::Command;
using kelvane::guarded;
using kelvane::Reply;

namespace {

// kv_zadd and its three relatives share one server function:
// ttl, commit, with_values, then score, member[, value] for each member.
int32_t add_members(kv_client* client, const char* key, size_t key_len, const double* scores,
                    const char* const* members, uint32_t count, const size_t* members_len,
                    const char* const* values, const size_t* values_len, int32_t ttl) {
    const bool with_values = values != nullptr;
    if (!kelvane::key_ok(client, key, key_len) || !kelvane::ttl_ok(ttl) || count == 0 ||
        scores == nullptr || members == nullptr || members_len == nullptr ||
        (with_values && values_len == nullptr)) {
        return KV_INVALID_PARAMETER;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (!kelvane::score_ok(scores[i]) || !kelvane::bytes_ok(members[i], members_len[i]) ||
            (with_values && !kelvane::bytes_ok(values[i], values_len[i]))) {
            return KV_INVALID_PARAMETER;
        }
    }
    const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
    Command command = kelvane::function_call("zadd", keys);
    kelvane::add_ttl(command, ttl).flag(with_values);
    for (uint32_t i = 0; i < count; ++i) {
        command.score(scores[i]).borrow(members[i], members_len[i]);
        if (with_values) command.borrow(values[i], values_len[i]);
    }
    Reply reply;
    return kelvane::call_function(client, command, reply);
}

}  // namespace

extern "C" int32_t kv_zadd(kv_client* client, const char* key, size_t key_len, double score,
                           const char* member, size_t member_len, int32_t ttl) {
    return guarded([&] {
        return add_members(client, key, key_len, &score, &member, 1, &member_len, nullptr,
                           nullptr, ttl);
    });
}

extern "C" int32_t kv_zaddval(kv_client* client, const char* key, size_t key_len, double score,
                              const char* member, size_t member_len, const char* value,
                              size_t value_len, int32_t ttl) {
    return guarded([&] {
        if (!kelvane::bytes_ok(value, value_len)) return KV_INVALID_PARAMETER;
        // Zero-length and null values alike are values: "" stands for both.
        const char* v = value != nullptr ? value : "";
        return add_members(client, key, key_len, &score, &member, 1, &member_len, &v,
                           &value_len, ttl);
    });
}

extern "C" int32_t kv_zmadd(kv_client* client, const char* key, size_t key_len,
                            const double* scores, const char* const* members, uint32_t count,
                            const size_t* members_len, int32_t ttl) {
    return guarded([&] {
        return add_members(client, key, key_len, scores, members, count, members_len, nullptr,
                           nullptr, ttl);
    });
}

extern "C" int32_t kv_zmaddval(kv_client* client, const char* key, size_t key_len,
                               const double* scores, const char* const* members, uint32_t count,
                               const size_t* members_len, const char* const* values,
                               const size_t* values_len, int32_t ttl) {
    return guarded([&] {
        if (values == nullptr) return KV_INVALID_PARAMETER;
        return add_members(client, key, key_len, scores, members, count, members_len, values,
                           values_len, ttl);
    });
}

extern "C" int32_t kv_zaddvalmax(kv_client* client, const char* key, size_t key_len,
                                 const char* member, size_t member_len, const char* value,
                                 size_t value_len, double increment, int32_t ttl) {
    return guarded([&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::bytes_ok(value, value_len) || !kelvane::score_ok(increment) ||
            !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
        Command command = kelvane::function_call("zaddvalmax", keys);
        kelvane::add_ttl(command, ttl)
            .borrow(member, member_len)
            .borrow(value != nullptr ? value : "", value_len)
            .score(increment);
        Reply reply;
        return kelvane::call_function(client, command, reply);
    });
}

extern "C" int32_t kv_zaddmaxinc(kv_client* client, const char* key, size_t key_len,
                                 int32_t increment, int32_t ttl) {
    return guarded([&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
        Command command = kelvane::function_call("zaddmaxinc", keys);
        kelvane::add_ttl(command, ttl).integer(increment);
        Reply reply;
        return kelvane::call_function(client, command, reply);
    });
}

extern "C" int32_t kv_zadddis(kv_client* client, const char* key, size_t key_len, double score,
                              const char* member, size_t member_len, double drift, char** kept,
                              int32_t ttl) {
    if (kept != nullptr) *kept = nullptr;
    return guarded([&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::score_ok(score) || !kelvane::score_ok(drift) || kept == nullptr ||
            !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
        Command command = kelvane::function_call("zadddis", keys);
        kelvane::add_ttl(command, ttl).score(score).borrow(member, member_len).score(drift);
        Reply reply;
        int32_t status = kelvane::call_function(client, command, reply);
        if (status != KV_SUCCESS && status != KV_ALREADY_EXISTS) return status;
        // The write has landed; only the name can still fail to arrive.
        size_t name_len = 0;
        int32_t handed = kelvane::hand_out_value(client->mm, kelvane::field(reply.get(), 1), kept,
                                                 &name_len);
        return handed == KV_SUCCESS ? status : handed;
    });
}

extern "C" int32_t kv_zincrby(kv_client* client, const char* key, size_t key_len,
                              const char* member, size_t member_len, double increment,
                              double* new_score, int32_t ttl) {
    if (new_score != nullptr) *new_score = 0;
    return guarded([&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::score_ok(increment) || new_score == nullptr || !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
        Command command = kelvane::function_call("zincrby", keys);
        kelvane::add_ttl(command, ttl).borrow(member, member_len).score(increment);
        Reply reply;
        int32_t status = kelvane::call_function(client, command, reply);
        if (status != KV_SUCCESS) return status;
        if (!kelvane::read_score(kelvane::field(reply.get(), 1), new_score)) {
            return KV_SERVER_ERROR;
        }
        return KV_SUCCESS;
    });
}
