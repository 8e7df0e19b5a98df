// api_keys.cpp -- operations on keys of any kind: kv_del, kv_get_ttl and
// kv_sadd.
#include <algorithm>
#include <cstdint>

#include "api_common.h"
#include "server_keys.h"

using kelvane::guarded;
using kelvane::PointReply;

extern "C" int32_t kv_del(kv_client* client, const char* key, size_t key_len) {
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len)) return KV_INVALID_PARAMETER;
        // One DEL takes both server keys at once, so no one sees half a key.
        client->request().start().arg("DEL").server_key(key, key_len, "").server_key(
            key, key_len, kelvane::kValuesSuffix);
        PointReply reply(kelvane::kBareInteger);
        const int32_t status = client->run_command(key, key_len, reply);
        if (status != KV_SUCCESS) return status;
        long long removed = 0;
        if (!reply.top_integer(&removed)) return KV_SERVER_ERROR;
        return removed > 0 ? KV_SUCCESS : KV_NOTFOUND;
    });
}

extern "C" int32_t kv_get_ttl(kv_client* client, const char* key, size_t key_len, int32_t* ttl) {
    if (ttl != nullptr) *ttl = 0;
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || ttl == nullptr) return KV_INVALID_PARAMETER;
        // The values hash always expires with the main key: the main key's
        // time-to-live is the kelvane key's.
        client->request().start().arg("PTTL").server_key(key, key_len, "");
        PointReply reply(kelvane::kBareInteger);
        const int32_t status = client->run_command(key, key_len, reply);
        if (status != KV_SUCCESS) return status;
        long long millis = 0;
        if (!reply.top_integer(&millis)) return KV_SERVER_ERROR;
        if (millis == -2) return KV_NOTFOUND;
        if (millis >= 0) {
            // Rounded up: a key that will expire never reads as 0, which
            // means "never expires". An expiry further off than int32_t
            // holds (another client's) reads as the most it holds.
            const long long seconds = millis / 1000 + (millis % 1000 != 0 ? 1 : 0);
            *ttl = static_cast<int32_t>(std::clamp<long long>(seconds, 1, INT32_MAX));
        }
        return KV_SUCCESS;
    });
}

extern "C" int32_t kv_sadd(kv_client* client, const char* key, size_t key_len,
                           const char* member, size_t member_len, int32_t ttl) {
    return guarded(client, [&] {
        if (!kelvane::key_ok(client, key, key_len) || !kelvane::bytes_ok(member, member_len) ||
            !kelvane::ttl_ok(ttl)) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::add_ttl(kelvane::function_call(client, "sadd", key, key_len), ttl)
            .arg(member, member_len);
        PointReply reply(kelvane::kStatusOnly);
        return kelvane::call_function(client, key, key_len, reply);
    });
}
