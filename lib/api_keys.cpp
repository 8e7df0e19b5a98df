// api_keys.cpp -- operations on keys of any kind: kv_del, kv_get_ttl and
// kv_sadd.
#include "api_common.h"
#include "replies.h"
#include "server_keys.h"

using kelvane::Command;
using kelvane::guarded;
using kelvane::Reply;

extern "C" int32_t kv_del(kv_client* client, const char* key, size_t key_len) {
    return guarded([&] {
        if (!kelvane::key_ok(client, key, key_len)) return KV_INVALID_PARAMETER;
        const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
        // One DEL takes both server keys at once, so no one sees half a key.
        Command command;
        command.borrow("DEL").borrow(keys.main).borrow(keys.values);
        Reply reply;
        int32_t status = client->run(command, reply);
        if (status != KV_SUCCESS) return status;
        long long removed = 0;
        if (!kelvane::read_integer(reply.get(), &removed)) return KV_SERVER_ERROR;
        return removed > 0 ? KV_SUCCESS : KV_NOTFOUND;
    });
}

extern "C" int32_t kv_get_ttl(kv_client* client, const char* key, size_t key_len, int32_t* ttl) {
    if (ttl != nullptr) *ttl = 0;
    return guarded([&] {
        if (!kelvane::key_ok(client, key, key_len) || ttl == nullptr) return KV_INVALID_PARAMETER;
        const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
        // The values hash always expires with the main key: the main key's
        // time-to-live is the kelvane key's.
        Command command;
        command.borrow("TTL").borrow(keys.main);
        Reply reply;
        int32_t status = client->run(command, reply);
        if (status != KV_SUCCESS) return status;
        long long seconds = 0;
        if (!kelvane::read_integer(reply.get(), &seconds)) return KV_SERVER_ERROR;
        if (seconds == -2) return KV_NOTFOUND;
        if (seconds > 0) *ttl = static_cast<int32_t>(seconds);
        return KV_SUCCESS;
    });
}

extern "C" int32_t kv_sadd(kv_client* client, const char* key, size_t key_len,
                           const char* member, size_t member_len, int32_t ttl) {
    return guarded([&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        const kelvane::ServerKeys keys = kelvane::server_keys(key, key_len);
        Command command = kelvane::function_call("sadd", keys);
        kelvane::add_ttl(command, ttl).borrow(member, member_len);
        Reply reply;
        return kelvane::call_function(client, command, reply);
    });
}
