// server_error.cpp -- reading error replies: "MOVED 3999 127.0.0.1:6381",
// "ASK 3999 127.0.0.1:6381", "TRYAGAIN ...", "OOM ...", and so on.
#include "server_error.h"

#include <charconv>

#include "kelvane.h"

namespace kelvane {
namespace {

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// "<slot> <host>:<port>" after a MOVED or ASK.
ServerError redirection(ErrorKind kind, std::string_view rest) {
    ServerError e;
    e.kind = kind;
    const auto space = rest.find(' ');
    if (space == std::string_view::npos) return ServerError{};
    int slot = -1;
    const auto [end, ec] = std::from_chars(rest.data(), rest.data() + space, slot);
    if (ec != std::errc() || end != rest.data() + space) return ServerError{};
    e.slot = slot;
    e.target = parse_endpoint(rest.substr(space + 1));
    if (!e.target) return ServerError{};
    return e;
}

}  // namespace

ServerError classify_error(std::string_view text) {
    if (starts_with(text, "MOVED ")) return redirection(ErrorKind::moved, text.substr(6));
    if (starts_with(text, "ASK ")) return redirection(ErrorKind::ask, text.substr(4));
    ServerError e;
    if (starts_with(text, "TRYAGAIN")) {
        e.kind = ErrorKind::try_again;
    } else if (starts_with(text, "CLUSTERDOWN")) {
        e.kind = ErrorKind::cluster_down;
    } else if (starts_with(text, "READONLY")) {
        e.kind = ErrorKind::read_only;
    } else if (starts_with(text, "LOADING") || starts_with(text, "BUSY") ||
               starts_with(text, "MASTERDOWN")) {
        e.kind = ErrorKind::busy;
    } else if (starts_with(text, "ERR Function not found")) {
        e.kind = ErrorKind::function_missing;
    } else if (starts_with(text, "OOM")) {
        e.kind = ErrorKind::out_of_memory;
    } else if (starts_with(text, "NOPERM")) {
        e.kind = ErrorKind::no_permission;
    } else if (starts_with(text, "NOAUTH") || starts_with(text, "WRONGPASS")) {
        e.kind = ErrorKind::auth;
    }
    return e;
}

int32_t status_of(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::try_again: return KV_TRY_AGAIN;
        case ErrorKind::cluster_down: return KV_CLUSTER_DOWN;
        case ErrorKind::busy: return KV_TIMEOUT;
        case ErrorKind::out_of_memory: return KV_SERVER_FULL;
        case ErrorKind::no_permission: return KV_NOT_PERMITTED;
        case ErrorKind::auth: return KV_AUTH_FAILED;
        default: return KV_SERVER_ERROR;
    }
}

}  // namespace kelvane
