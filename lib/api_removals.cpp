// api_removals.cpp -- kv_zrem, kv_zmrem, kv_zremrangebyscore and
// kv_zremrangebyrank. Removing a member also removes its value; removing the
// last member removes the key.
#include "api_common.h"

using kelvane::guarded;
using kelvane::PointReply;

namespace {

int32_t remove_members(kv_client* client, const char* key, size_t key_len,
                       const char* const* members, uint32_t count, const size_t* members_len,
                       uint32_t* removed) {
    if (!kelvane::key_ok(client, key, key_len) || count == 0 || members == nullptr ||
        members_len == nullptr) {
        return KV_INVALID_PARAMETER;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (!kelvane::bytes_ok(members[i], members_len[i])) return KV_INVALID_PARAMETER;
    }
    kelvane::Request& request = kelvane::function_call(client, "zrem", key, key_len);
    for (uint32_t i = 0; i < count; ++i) request.arg(members[i], members_len[i]);
    PointReply reply(kelvane::kStatusCount);
    const int32_t status = kelvane::call_function(client, key, key_len, reply);
    if (status != KV_SUCCESS) return status;
    uint32_t n = 0;
    if (!reply.count(1, &n)) return KV_SERVER_ERROR;
    if (removed != nullptr) *removed = n;
    return KV_SUCCESS;
}

// Runs the range removal in the client's request.
int32_t run_remove_range(kv_client* client, const char* key, size_t key_len, uint32_t* removed) {
    PointReply reply(kelvane::kStatusCount);
    const int32_t status = kelvane::call_function(client, key, key_len, reply);
    if (status != KV_SUCCESS) return status;
    return reply.count(1, removed) ? KV_SUCCESS : KV_SERVER_ERROR;
}

}  // namespace

extern "C" int32_t kv_zrem(kv_client* client, const char* key, size_t key_len,
                           const char* member, size_t member_len) {
    return guarded(client, [&] {
        return remove_members(client, key, key_len, &member, 1, &member_len, nullptr);
    });
}

extern "C" int32_t kv_zmrem(kv_client* client, const char* key, size_t key_len,
                            const char* const* members, uint32_t count, const size_t* members_len,
                            uint32_t* removed) {
    if (removed != nullptr) *removed = 0;
    return guarded(client, [&] {
        if (removed == nullptr) return KV_INVALID_PARAMETER;
        return remove_members(client, key, key_len, members, count, members_len, removed);
    });
}

extern "C" int32_t kv_zremrangebyscore(kv_client* client, const char* key, size_t key_len,
                                       double min, double max, uint32_t* removed) {
    if (removed != nullptr) *removed = 0;
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || removed == nullptr ||
            !kelvane::score_ok(min) || !kelvane::score_ok(max)) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::function_call(client, "zremrange", key, key_len).flag(true).score(min).score(max);
        return run_remove_range(client, key, key_len, removed);
    });
}

extern "C" int32_t kv_zremrangebyrank(kv_client* client, const char* key, size_t key_len,
                                      int32_t start, int32_t stop, uint32_t* removed) {
    if (removed != nullptr) *removed = 0;
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || removed == nullptr) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::function_call(client, "zremrange", key, key_len)
            .flag(false)
            .integer(start)
            .integer(stop);
        return run_remove_range(client, key, key_len, removed);
    });
}
