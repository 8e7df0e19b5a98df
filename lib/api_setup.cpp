// api_setup.cpp -- clients, server registration (data nodes and Sentinels,
// with settings from the caller and the environment) and voidtostring.
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "api_common.h"
#include "memory_manager.h"
#include "settings.h"

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
    return new (std::nothrow) kv_client(mm, settings, kelvane::read_path_from_environment());
}

extern "C" void kv_client_destroy(kv_client* client) { delete client; }

namespace {

// Registers host:port (or the socket path host) with the settings given
// and the environment's.
int32_t add_server(kv_client* client, const char* host, uint32_t port,
                   const kelvane::GivenSettings& given) {
    const bool path = kelvane::is_socket_path(host);
    if (!path && (port == 0 || port > 65535)) return KV_INVALID_PARAMETER;
    kelvane::SeedSettings settings;
    std::string why;
    const int32_t status = kelvane::resolve_settings(given, host, &settings, &why);
    if (status != KV_SUCCESS) {
        client->router.note_failure(status, std::move(why));
        return status;
    }
    // A socket path names the server alone: the port plays no part.
    const kelvane::Endpoint seed{host, path ? 0 : static_cast<int>(port)};
    if (!settings.sentinel_master.empty()) {
        return client->router.add_sentinel(seed, settings, client->deadline());
    }
    return client->router.add_seed(seed, std::move(settings.data), client->deadline());
}

// Whether the caller's options structure reaches past a member that ends at
// end bytes from its start.
bool covers(const kv_server_options* o, std::size_t end) { return o->size >= end; }
#define KV_OPTION(o, member, unset) \
    (covers(o, offsetof(kv_server_options, member) + sizeof(o->member)) ? o->member : unset)

}  // namespace

extern "C" int32_t kv_server_add(kv_client* client, const char* host, uint32_t port,
                                 const kv_credentials* credentials) {
    return guarded(client, [&] {
        if (client == nullptr || host == nullptr || *host == '\0') return KV_INVALID_PARAMETER;
        if (credentials != nullptr && credentials->password == nullptr) {
            return KV_INVALID_PARAMETER;
        }
        kelvane::GivenSettings given;
        if (credentials != nullptr) {
            given.credentials_given = true;
            given.user = credentials->user;
            given.password = credentials->password;
        }
        return add_server(client, host, port, given);
    });
}

extern "C" int32_t kv_server_add_options(kv_client* client, const char* host, uint32_t port,
                                         const kv_server_options* options) {
    return guarded(client, [&] {
        if (client == nullptr || host == nullptr || *host == '\0') return KV_INVALID_PARAMETER;
        kelvane::GivenSettings given;
        if (options != nullptr) {
            if (!covers(options, offsetof(kv_server_options, user) + sizeof(options->user))) {
                return KV_INVALID_PARAMETER;
            }
            given.user = KV_OPTION(options, user, nullptr);
            given.password = KV_OPTION(options, password, nullptr);
            given.tls_mode = KV_OPTION(options, tls_mode, KV_TLS_UNSET);
            given.ca_file = KV_OPTION(options, tls_ca_file, nullptr);
            given.ca_dir = KV_OPTION(options, tls_ca_dir, nullptr);
            given.cert_file = KV_OPTION(options, tls_cert_file, nullptr);
            given.key_file = KV_OPTION(options, tls_key_file, nullptr);
            given.server_name = KV_OPTION(options, tls_server_name, nullptr);
            given.sentinel_master = KV_OPTION(options, sentinel_master, nullptr);
            given.sentinel_user = KV_OPTION(options, sentinel_user, nullptr);
            given.sentinel_password = KV_OPTION(options, sentinel_password, nullptr);
            given.sentinel_tls_mode = KV_OPTION(options, sentinel_tls_mode, KV_TLS_UNSET);
        }
        return add_server(client, host, port, given);
    });
}

#undef KV_OPTION

extern "C" char* voidtostring(const void* item, size_t len, kv_mm* mm) {
    if (mm == nullptr || !kelvane::bytes_ok(item, len)) return nullptr;
    return kelvane::mm_copy(mm, static_cast<const char*>(item), len).release();
}
