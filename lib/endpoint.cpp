// endpoint.cpp -- node addresses as the cluster writes them.
#include "endpoint.h"

#include <charconv>

namespace kelvane {

std::optional<Endpoint> parse_endpoint(std::string_view text) {
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    Endpoint e;
    e.host = std::string(text.substr(0, colon));
    const std::string_view digits = text.substr(colon + 1);
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), e.port);
    if (ec != std::errc() || end != digits.data() + digits.size() || e.port <= 0 || e.port > 65535) {
        return std::nullopt;
    }
    // An IPv6 address may come in brackets.
    if (e.host.size() >= 2 && e.host.front() == '[' && e.host.back() == ']') {
        e.host = e.host.substr(1, e.host.size() - 2);
    }
    return e;
}

std::string describe(const Endpoint& endpoint) {
    if (is_socket_path(endpoint.host)) return endpoint.host;
    return endpoint.host + ":" + std::to_string(endpoint.port);
}

}  // namespace kelvane
