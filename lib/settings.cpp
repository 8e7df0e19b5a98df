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

// The TLS mode: the caller's, KELVANE_TLS_MODE's (TCP only), or, with
// neither, verify-full when a TLS setting asks for TLS and disable when
// none does. KV_TLS_UNSET with *why for a mode that is not one.
int32_t tls_mode(const GivenSettings& given, bool socket_path, bool tls_asked, std::string* why) {
    if (given.tls_mode != KV_TLS_UNSET) {
        for (const ModeName& m : kModes) {
            if (m.mode == given.tls_mode) return m.mode;
        }
        *why = "tls_mode " + std::to_string(given.tls_mode) + " is not a TLS mode (KV_TLS_*)";
        return KV_TLS_UNSET;
    }
    // Redis serves its Unix socket without TLS: only the caller's own
    // options turn TLS on there.
    if (socket_path) return KV_TLS_DISABLE;
    if (const char* name = pick(nullptr, "KELVANE_TLS_MODE")) {
        for (const ModeName& m : kModes) {
            if (std::strcmp(m.name, name) == 0) return m.mode;
        }
        *why = std::string("KELVANE_TLS_MODE=") + name +
               " is not a TLS mode (disable, require, verify-ca or verify-full)";
        return KV_TLS_UNSET;
    }
    return tls_asked ? KV_TLS_VERIFY_FULL : KV_TLS_DISABLE;
}

}  // namespace

int32_t resolve_settings(const GivenSettings& given, const std::string& host,
                         std::shared_ptr<const NodeSettings>* out, std::string* why) {
    auto settings = std::make_shared<NodeSettings>();
    const char* password = given.credentials_given ? given.password : pick(given.password, "KELVANE_PASSWORD");
    if (password != nullptr) {
        const char* user = given.credentials_given ? given.user : pick(given.user, "KELVANE_USER");
        settings->credentials = Credentials{user != nullptr ? user : "default", Secret(password)};
    }

    TlsFiles files;
    files.ca_file = text(pick(given.ca_file, "KELVANE_TLS_CA_FILE"));
    files.ca_dir = text(pick(given.ca_dir, "KELVANE_TLS_CA_DIR"));
    files.cert_file = text(pick(given.cert_file, "KELVANE_TLS_CERT_FILE"));
    files.key_file = text(pick(given.key_file, "KELVANE_TLS_KEY_FILE"));
    const std::string server_name = text(pick(given.server_name, "KELVANE_TLS_SERVER_NAME"));
    const bool tls_asked = !files.ca_file.empty() || !files.ca_dir.empty() || !files.cert_file.empty() ||
                           !server_name.empty();
    const int32_t mode = tls_mode(given, is_socket_path(host), tls_asked, why);
    if (mode == KV_TLS_UNSET) return KV_BAD_SETTINGS;
    if (mode != KV_TLS_DISABLE) {
        if (mode == KV_TLS_VERIFY_FULL && server_name.empty() && is_socket_path(host)) {
            *why = "verify-full over the Unix socket " + host + " needs a server name to check";
            return KV_BAD_SETTINGS;
        }
        const TlsCheck check = mode == KV_TLS_REQUIRE     ? TlsCheck::none
                               : mode == KV_TLS_VERIFY_CA ? TlsCheck::chain
                                                          : TlsCheck::chain_and_name;
        settings->tls = TlsContext::create(check, files, why);
        if (!settings->tls) return KV_BAD_SETTINGS;
        settings->server_name = server_name;
    }
    *out = std::move(settings);
    return KV_SUCCESS;
}

}  // namespace kelvane
