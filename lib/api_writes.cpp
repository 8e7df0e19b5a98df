// api_writes.cpp -- the sorted-set writes. Each is one call of a server
// function (functions/writes.lua, functions/relative_writes.lua), which
// applies the time-to-live rule.
#include "api_common.h"
#include "memory_manager.h"

using kelvane::guarded;
using kelvane::PointReply;

namespace {

// kv_zadd and its three relatives share one server function:
// ttl, commit, with_values, then score, member for each member, and with
// values then member, value for each: the lists ZADD and HSET take, which the
// function passes on without building them.
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
    kelvane::Request& request = kelvane::function_call(client, "zadd", key, key_len);
    kelvane::add_ttl(request, ttl).flag(with_values);
    for (uint32_t i = 0; i < count; ++i) request.score(scores[i]).arg(members[i], members_len[i]);
    if (with_values) {
        for (uint32_t i = 0; i < count; ++i) request.arg(members[i], members_len[i]).arg(values[i], values_len[i]);
    }
    PointReply reply(kelvane::kStatusOnly);
    return kelvane::call_function(client, key, key_len, reply);
}

}  // namespace

extern "C" int32_t kv_zadd(kv_client* client, const char* key, size_t key_len, double score,
                           const char* member, size_t member_len, int32_t ttl) {
    return guarded(client, [&] {
        return add_members(client, key, key_len, &score, &member, 1, &member_len, nullptr,
                           nullptr, ttl);
    });
}

extern "C" int32_t kv_zaddval(kv_client* client, const char* key, size_t key_len, double score,
                              const char* member, size_t member_len, const char* value,
                              size_t value_len, int32_t ttl) {
    return guarded(client, [&] {
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
    return guarded(client, [&] {
        return add_members(client, key, key_len, scores, members, count, members_len, nullptr,
                           nullptr, ttl);
    });
}

extern "C" int32_t kv_zmaddval(kv_client* client, const char* key, size_t key_len,
                               const double* scores, const char* const* members, uint32_t count,
                               const size_t* members_len, const char* const* values,
                               const size_t* values_len, int32_t ttl) {
    return guarded(client, [&] {
        if (values == nullptr) return KV_INVALID_PARAMETER;
        return add_members(client, key, key_len, scores, members, count, members_len, values,
                           values_len, ttl);
    });
}

extern "C" int32_t kv_zaddvalmax(kv_client* client, const char* key, size_t key_len,
                                 const char* member, size_t member_len, const char* value,
                                 size_t value_len, double increment, int32_t ttl) {
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::bytes_ok(value, value_len) || !kelvane::score_ok(increment) ||
            !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::add_ttl(kelvane::function_call(client, "zaddvalmax", key, key_len), ttl)
            .arg(member, member_len)
            .arg(value != nullptr ? value : "", value_len)
            .score(increment);
        PointReply reply(kelvane::kStatusOnly);
        return kelvane::call_function(client, key, key_len, reply);
    });
}

extern "C" int32_t kv_zaddmaxinc(kv_client* client, const char* key, size_t key_len,
                                 int32_t increment, int32_t ttl) {
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::add_ttl(kelvane::function_call(client, "zaddmaxinc", key, key_len), ttl)
            .integer(increment);
        // The name of the member it added, which the caller does not get.
        PointReply reply(kelvane::kStatusText);
        return kelvane::call_function(client, key, key_len, reply);
    });
}

extern "C" int32_t kv_zadddis(kv_client* client, const char* key, size_t key_len, double score,
                              const char* member, size_t member_len, double drift, char** kept,
                              int32_t ttl) {
    if (kept != nullptr) *kept = nullptr;
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::score_ok(score) || !kelvane::score_ok(drift) || kept == nullptr ||
            !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::add_ttl(kelvane::function_call(client, "zadddis", key, key_len), ttl)
            .score(score)
            .arg(member, member_len)
            .score(drift);
        // The name of the member that kept the highest score goes straight
        // into a buffer for the caller.
        PointReply reply(kelvane::kStatusName, client->mm, 1);
        const int32_t status = kelvane::call_function(client, key, key_len, reply);
        if (status != KV_SUCCESS && status != KV_ALREADY_EXISTS) return status;
        *kept = reply.take_handed().release();
        return status;
    });
}

extern "C" int32_t kv_zincrby(kv_client* client, const char* key, size_t key_len,
                              const char* member, size_t member_len, double increment,
                              double* new_score, int32_t ttl) {
    if (new_score != nullptr) *new_score = 0;
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::score_ok(increment) || new_score == nullptr || !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::add_ttl(kelvane::function_call(client, "zincrby", key, key_len), ttl)
            .arg(member, member_len)
            .score(increment);
        PointReply reply(kelvane::kStatusText);
        const int32_t status = kelvane::call_function(client, key, key_len, reply);
        if (status != KV_SUCCESS) return status;
        return reply.score(1, new_score) ? KV_SUCCESS : KV_SERVER_ERROR;
    });
}
