// settings.cpp -- the caller's settings, the environment's, and the TLS
// context they make.
#include "settings.h"

#include <cstdlib>
#include <cstring>

#include "endpoint.h"
#include "kelvane.h"

namespace kelvane {
namespace {

// The caller's value, else the environment's; an empty variable is unset.
// secure_getenv: a set-user-ID program takes no settings from its caller's
// environment.
const char* pick(const char* given, const char* variable) {
    if (given != nullptr) return given;
    const char* from_env = secure_getenv(variable);
    return from_env != nullptr && *from_env != '\0' ? from_env : nullptr;
}

std::string text(const char* s) { return s != nullptr ? s : ""; }

struct ModeName {
    int32_t mode;
    const char* name;
};
constexpr ModeName kModes[] = {{KV_TLS_DISABLE, "disable"},
                               {KV_TLS_REQUIRE, "require"},
                               {KV_TLS_VERIFY_CA, "verify-ca"},
                               {KV_TLS_VERIFY_FULL, "verify-full"}};

// The TLS mode the caller (member) or else the environment (variable, for
// TCP only: Redis serves its Unix socket without TLS) names; KV_TLS_UNSET
// when neither does. False with *why for a mode that is not one.
bool named_mode(int32_t given, const char* member, const char* variable, bool socket_path,
                int32_t* mode, std::string* why) {
    *mode = KV_TLS_UNSET;
    if (given != KV_TLS_UNSET) {
        for (const ModeName& m : kModes) {
            if (m.mode == given) *mode = m.mode;
        }
        if (*mode == KV_TLS_UNSET) {
            *why = std::string(member) + " " + std::to_string(given) + " is not a TLS mode (KV_TLS_*)";
        }
        return *mode != KV_TLS_UNSET;
    }
    if (socket_path) return true;
    const char* name = pick(nullptr, variable);
    if (name == nullptr) return true;
    for (const ModeName& m : kModes) {
        if (std::strcmp(m.name, name) == 0) *mode = m.mode;
    }
    if (*mode == KV_TLS_UNSET) {
        *why = std::string(variable) + "=" + name + " is not a TLS mode (disable, require, verify-ca or verify-full)";
    }
    return *mode != KV_TLS_UNSET;
}

// The files and the name the TLS settings give, and whether any of them asks
// for TLS.
struct TlsInputs {
    TlsFiles files;
    std::string server_name;
    bool asked = false;
};

TlsInputs tls_inputs(const GivenSettings& given) {
    TlsInputs in;
    in.files.ca_file = text(pick(given.ca_file, "KELVANE_TLS_CA_FILE"));
    in.files.ca_dir = text(pick(given.ca_dir, "KELVANE_TLS_CA_DIR"));
    in.files.cert_file = text(pick(given.cert_file, "KELVANE_TLS_CERT_FILE"));
    in.files.key_file = text(pick(given.key_file, "KELVANE_TLS_KEY_FILE"));
    in.server_name = text(pick(given.server_name, "KELVANE_TLS_SERVER_NAME"));
    in.asked = !in.files.ca_file.empty() || !in.files.ca_dir.empty() || !in.files.cert_file.empty() ||
               !in.server_name.empty();
    return in;
}

// TLS in mode (a named one) for the node at host, into settings.
int32_t apply_tls(int32_t mode, const TlsInputs& in, const std::string& host, NodeSettings& settings,
                  std::string* why) {
    if (mode == KV_TLS_DISABLE) return KV_SUCCESS;
    if (mode == KV_TLS_VERIFY_FULL && in.server_name.empty() && is_socket_path(host)) {
        *why = "verify-full over the Unix socket " + host + " needs a server name to check";
        return KV_BAD_SETTINGS;
    }
    const TlsCheck check = mode == KV_TLS_REQUIRE     ? TlsCheck::none
                           : mode == KV_TLS_VERIFY_CA ? TlsCheck::chain
                                                      : TlsCheck::chain_and_name;
    settings.tls = TlsContext::create(check, in.files, why);
    if (!settings.tls) return KV_BAD_SETTINGS;
    settings.server_name = in.server_name;
    return KV_SUCCESS;
}

// The user and password given (fixed: both came together, with no fallback),
// else the environment's; none without a password.
std::optional<Credentials> credentials(bool fixed, const char* user, const char* password,
                                       const char* user_variable, const char* password_variable) {
    if (!fixed) password = pick(password, password_variable);
    if (password == nullptr) return std::nullopt;
    if (!fixed) user = pick(user, user_variable);
    return Credentials{user != nullptr ? user : "default", Secret(password)};
}

// The Sentinels' settings beside the data nodes' (data): their own
// credentials, and their own TLS mode if one is named, else the data nodes'
// TLS (with the same files and name either way).
int32_t resolve_sentinel(const GivenSettings& given, const std::string& host, const TlsInputs& tls,
                         const std::shared_ptr<NodeSettings>& data, NodeSettings& out, std::string* why) {
    out.credentials = credentials(false, given.sentinel_user, given.sentinel_password, "KELVANE_SENTINEL_USER",
                                  "KELVANE_SENTINEL_PASSWORD");
    const bool socket_path = is_socket_path(host);
    int32_t mode = KV_TLS_UNSET;
    if (!named_mode(given.sentinel_tls_mode, "sentinel_tls_mode", "KELVANE_SENTINEL_TLS_MODE", socket_path, &mode,
                    why)) {
        return KV_BAD_SETTINGS;
    }
    if (mode == KV_TLS_UNSET && !socket_path) {
        out.tls = data->tls;
        out.server_name = data->server_name;
        return KV_SUCCESS;
    }
    // A Sentinel on a Unix socket speaks plaintext unless the caller's own
    // options say otherwise.
    if (mode == KV_TLS_UNSET) mode = given.tls_mode != KV_TLS_UNSET ? given.tls_mode : KV_TLS_DISABLE;
    return apply_tls(mode, tls, host, out, why);
}

}  // namespace

int32_t resolve_settings(const GivenSettings& given, const std::string& host, SeedSettings* out,
                         std::string* why) {
    if (given.sentinel_master != nullptr && *given.sentinel_master == '\0') {
        *why = "sentinel_master is empty: give the name of the master the Sentinels watch, or NULL";
        return KV_BAD_SETTINGS;
    }
    const char* master = pick(given.sentinel_master, "KELVANE_SENTINEL_MASTER");
    // The masters and replicas that Sentinels name are reached over TCP: what
    // holds for a seed on a Unix socket holds for the Sentinel alone.
    const std::string data_host = master != nullptr ? std::string() : host;
    auto data = std::make_shared<NodeSettings>();
    data->credentials = credentials(given.credentials_given, given.user, given.password, "KELVANE_USER",
                                    "KELVANE_PASSWORD");
    const TlsInputs tls = tls_inputs(given);
    int32_t mode = KV_TLS_UNSET;
    if (!named_mode(given.tls_mode, "tls_mode", "KELVANE_TLS_MODE", is_socket_path(data_host), &mode, why)) {
        return KV_BAD_SETTINGS;
    }
    // With no mode named, asking for a check never falls back to plaintext;
    // a Unix socket stays plaintext.
    if (mode == KV_TLS_UNSET) mode = tls.asked && !is_socket_path(data_host) ? KV_TLS_VERIFY_FULL : KV_TLS_DISABLE;
    int32_t status = apply_tls(mode, tls, data_host, *data, why);
    if (status != KV_SUCCESS) return status;
    SeedSettings seed;
    if (master != nullptr) {
        auto sentinel = std::make_shared<NodeSettings>();
        status = resolve_sentinel(given, host, tls, data, *sentinel, why);
        if (status != KV_SUCCESS) return status;
        seed.sentinel_master = master;
        seed.sentinel = std::move(sentinel);
    }
    seed.data = std::move(data);
    *out = std::move(seed);
    return KV_SUCCESS;
}

}  // namespace kelvane
