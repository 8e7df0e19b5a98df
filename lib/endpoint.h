// endpoint.h -- the address of one server node, and the credentials the
// client presents to every node.
#ifndef KELVANE_ENDPOINT_H
#define KELVANE_ENDPOINT_H

#include <optional>
#include <string>
#include <string_view>

namespace kelvane {

struct Endpoint {
    std::string host;
    int port = 0;

    bool operator==(const Endpoint& o) const { return port == o.port && host == o.host; }
    bool operator!=(const Endpoint& o) const { return !(*this == o); }
};

// "host:port" as the cluster names nodes in its redirections; the host may
// be empty (the cluster does not know it) and may itself hold colons (IPv6).
std::optional<Endpoint> parse_endpoint(std::string_view text);

struct Credentials {
    std::string user;  // "default" when none was given
    std::string password;
};

}  // namespace kelvane

#endif  // KELVANE_ENDPOINT_H
