// api_setup.cpp -- clients, server registration and voidtostring.
#include <chrono>
#include <cstring>
#include <new>

#include "api_common.h"
#include "memory_manager.h"

using kelvane::guarded;

namespace {

constexpr int32_t kDefaultConnectTimeout = 1;
constexpr int32_t kDefaultCommandTimeout = 2;
constexpr int32_t kDefaultConnectAttempts = 2;

std::chrono::milliseconds seconds(int32_t s, int32_t fallback) {
    return std::chrono::seconds(s > 0 ? s : fallback);
}

}  // namespace

extern "C" kv_client* kv_client_create(int32_t connect_timeout_s, int32_t command_timeout_s,
                                       kv_mm* mm, int32_t connect_attempts) {
    if (mm == nullptr) return nullptr;
    kelvane::RouterSettings settings{
        seconds(connect_timeout_s, kDefaultConnectTimeout),
        seconds(command_timeout_s, kDefaultCommandTimeout),
        connect_attempts > 0 ? connect_attempts : kDefaultConnectAttempts};
    return new (std::nothrow) kv_client(mm, settings);
}

extern "C" void kv_client_destroy(kv_client* client) { delete client; }

extern "C" int32_t kv_server_add(kv_client* client, const char* host, uint32_t port,
                                 const kv_credentials* credentials) {
    return guarded(client, [&] {
        if (client == nullptr || host == nullptr || *host == '\0' || port == 0 || port > 65535) {
            return KV_INVALID_PARAMETER;
        }
        if (credentials != nullptr && credentials->password == nullptr) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::Endpoint seed{host, static_cast<int>(port)};
        std::optional<kelvane::Credentials> given;
        if (credentials != nullptr) {
            given = kelvane::Credentials{credentials->user != nullptr ? credentials->user : "default",
                                         credentials->password};
        }
        return client->router.add_seed(seed, given, client->deadline);
    });
}

extern "C" char* voidtostring(const void* item, size_t len, kv_mm* mm) {
    if (mm == nullptr || !kelvane::bytes_ok(item, len)) return nullptr;
    return kelvane::mm_copy(mm, static_cast<const char*>(item), len).release();
}
