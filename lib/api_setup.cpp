// api_setup.cpp -- clients, server registration and voidtostring.
#include <cstring>
#include <new>

#include "api_common.h"
#include "memory_manager.h"

using kelvane::guarded;

namespace {

constexpr int32_t kDefaultConnectTimeout = 1;
constexpr int32_t kDefaultCommandTimeout = 2;
constexpr int32_t kDefaultConnectAttempts = 2;

timeval seconds(int32_t s, int32_t fallback) { return timeval{s > 0 ? s : fallback, 0}; }

}  // namespace

extern "C" kv_client* kv_client_create(int32_t connect_timeout_s, int32_t command_timeout_s,
                                       kv_mm* mm, int32_t connect_attempts) {
    if (mm == nullptr) return nullptr;
    auto* client = new (std::nothrow) kv_client;
    if (client == nullptr) return nullptr;
    client->mm = mm;
    client->timeouts.connect = seconds(connect_timeout_s, kDefaultConnectTimeout);
    client->timeouts.command = seconds(command_timeout_s, kDefaultCommandTimeout);
    client->connect_attempts = connect_attempts > 0 ? connect_attempts : kDefaultConnectAttempts;
    return client;
}

extern "C" void kv_client_destroy(kv_client* client) { delete client; }

extern "C" int32_t kv_server_add(kv_client* client, const char* host, uint32_t port,
                                 const kv_credentials* credentials) {
    return guarded([&] {
        if (client == nullptr || host == nullptr || *host == '\0' || port == 0 || port > 65535) {
            return KV_INVALID_PARAMETER;
        }
        if (credentials != nullptr && credentials->password == nullptr) {
            return KV_INVALID_PARAMETER;
        }
        if (client->server) return KV_ALREADY_EXISTS;
        kelvane::Endpoint endpoint;
        endpoint.host = host;
        endpoint.port = static_cast<int>(port);
        if (credentials != nullptr) {
            if (credentials->user != nullptr) endpoint.user = credentials->user;
            endpoint.password = credentials->password;
        }
        client->server = std::move(endpoint);
        return client->connect();
    });
}

extern "C" char* voidtostring(const void* item, size_t len, kv_mm* mm) {
    if (mm == nullptr || !kelvane::bytes_ok(item, len)) return nullptr;
    return kelvane::mm_copy(mm, static_cast<const char*>(item), len).release();
}
