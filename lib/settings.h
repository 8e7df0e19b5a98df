// settings.h -- how the client reaches the nodes of one store: credentials,
// TLS, and the name certificates are checked against; for a seed that is a
// Sentinel, also the master's name and the Sentinels' own credentials and
// TLS mode. Resolved once per seed from what the caller passed, falling back
// to the environment (KELVANE_USER, KELVANE_PASSWORD, KELVANE_TLS_*,
// KELVANE_SENTINEL_*) field by field.
#ifndef KELVANE_SETTINGS_H
#define KELVANE_SETTINGS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "secret.h"
#include "tls_context.h"

namespace kelvane {

struct Credentials {
    std::string user;  // "default" when none was given
    Secret password;
};

// Shared, never changed, by every node the settings reach.
struct NodeSettings {
    std::optional<Credentials> credentials;  // none: no AUTH
    std::shared_ptr<const TlsContext> tls;   // null: plaintext
    std::string server_name;                 // checked and sent as SNI instead of the host; "": the host

    std::string_view password() const {
        return credentials ? credentials->password.view() : std::string_view();
    }
};

// What the caller gave; nullptr (and tls_mode 0) leave a field to the
// environment.
struct GivenSettings {
    bool credentials_given = false;  // user and password came from kv_credentials: no fallback
    const char* user = nullptr;
    const char* password = nullptr;
    int32_t tls_mode = 0;  // KV_TLS_*
    const char* ca_file = nullptr;
    const char* ca_dir = nullptr;
    const char* cert_file = nullptr;
    const char* key_file = nullptr;
    const char* server_name = nullptr;
    const char* sentinel_master = nullptr;  // the seed is a Sentinel watching this master
    const char* sentinel_user = nullptr;
    const char* sentinel_password = nullptr;
    int32_t sentinel_tls_mode = 0;  // KV_TLS_*, for the Sentinels alone
};

// A seed's settings: the data nodes' (the seed itself, or the masters and
// replicas its Sentinels name), and for a Sentinel the master's name and
// the Sentinels' own.
struct SeedSettings {
    std::shared_ptr<const NodeSettings> data;
    std::string sentinel_master;                   // "": the seed is a data node
    std::shared_ptr<const NodeSettings> sentinel;  // set when sentinel_master is
};

// The settings for a seed at host. KV_SUCCESS; KV_BAD_SETTINGS with *why
// when one cannot be used.
int32_t resolve_settings(const GivenSettings& given, const std::string& host, SeedSettings* out,
                         std::string* why);

}  // namespace kelvane

#endif  // KELVANE_SETTINGS_H
