// endpoint.h -- the address of one server node: a host and port, or the
// path of a Unix domain socket.
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

// A host that is the path of a Unix domain socket.
inline bool is_socket_path(std::string_view host) { return !host.empty() && host.front() == '/'; }

// "host:port", or the path of a Unix socket, for messages.
std::string describe(const Endpoint& endpoint);

}  // namespace kelvane

#endif  // KELVANE_ENDPOINT_H
