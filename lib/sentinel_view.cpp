// sentinel_view.cpp -- SENTINEL get-master-addr-by-name and SENTINEL
// sentinels in one round trip, ROLE, and SUBSCRIBE +switch-master.
#include "sentinel_view.h"

#include <charconv>
#include <optional>
#include <utility>

#include "kelvane.h"
#include "request.h"
#include "server_error.h"

namespace kelvane {
namespace {

// An address from a host and a port given as texts, as Sentinels give them.
std::optional<Endpoint> endpoint_of(const Value* host, const Value* port) {
    if (host == nullptr || port == nullptr || host->type != Value::Type::text ||
        port->type != Value::Type::text || host->text.empty()) {
        return std::nullopt;
    }
    Endpoint e{host->text, 0};
    const std::string& digits = port->text;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), e.port);
    if (ec != std::errc() || end != digits.data() + digits.size() || e.port <= 0 || e.port > 65535) {
        return std::nullopt;
    }
    return e;
}

int32_t status_of_reply(const ValueReply& reply) { return status_of(classify_error(reply.error()).kind); }

}  // namespace

int32_t ask_sentinel(NodeConnection& connection, std::string_view name, Deadline deadline,
                     SentinelView* view) {
    Request request;
    std::string bytes(request.start().arg("SENTINEL").arg("get-master-addr-by-name").arg(name).bytes());
    bytes.append(request.start().arg("SENTINEL").arg("sentinels").arg(name).bytes());
    ValueReply master, others;
    const Exchange done = connection.exchange(bytes, {&master, &others}, deadline);
    if (done.status != KV_SUCCESS) return done.status;
    if (master.is_error()) return status_of_reply(master);
    // An unknown name: a nil, and an error for the Sentinels it watches.
    if (master.value().type == Value::Type::nil) return KV_SUCCESS;
    const std::vector<Value>& address = master.value().elements;
    const std::optional<Endpoint> named =
        master.value().type == Value::Type::array && address.size() == 2 ? endpoint_of(&address[0], &address[1])
                                                                        : std::nullopt;
    if (!named) return KV_SERVER_ERROR;
    view->knows_name = true;
    view->master = *named;
    if (others.is_error() || others.value().type != Value::Type::array) return KV_SUCCESS;
    // Each Sentinel as a flat list of fields; one that makes no address is
    // left out.
    for (const Value& sentinel : others.value().elements) {
        if (auto e = endpoint_of(sentinel.field("ip"), sentinel.field("port"))) view->sentinels.push_back(*e);
    }
    return KV_SUCCESS;
}

int32_t ask_role(NodeConnection& connection, Deadline deadline, std::string* role) {
    Request role_request;
    role_request.start().arg("ROLE");
    ValueReply reply;
    const Exchange done = connection.exchange(role_request.bytes(), {&reply}, deadline);
    if (done.status != KV_SUCCESS) return done.status;
    if (reply.is_error()) return status_of_reply(reply);
    const Value& v = reply.value();
    if (v.type != Value::Type::array || v.elements.empty() || v.elements[0].type != Value::Type::text) {
        return KV_SERVER_ERROR;
    }
    *role = v.elements[0].text;
    return KV_SUCCESS;
}

int32_t watch_failovers(NodeConnection& connection, Deadline deadline) {
    // The Sentinel that runs a failover names the promoted replica from the
    // moment it answers as master (+promoted-slave), and announces the
    // switch only once the other replicas follow it; the others announce the
    // switch when they learn of it.
    // One channel a command: a command that is refused (NOPERM) gets one
    // error reply, however many channels it names.
    Request subscribe;
    std::string bytes(subscribe.start().arg("SUBSCRIBE").arg("+switch-master").bytes());
    bytes.append(subscribe.start().arg("SUBSCRIBE").arg("+promoted-slave").bytes());
    ValueReply switched, promoted;
    const Exchange done = connection.exchange(bytes, {&switched, &promoted}, deadline);
    if (done.status != KV_SUCCESS) return done.status;
    const std::pair<const ValueReply*, std::string_view> channels[] = {{&switched, "+switch-master"},
                                                                        {&promoted, "+promoted-slave"}};
    for (const auto& [reply, channel] : channels) {
        if (reply->is_error()) return status_of_reply(*reply);
        // ["subscribe", <channel>, <count>]
        const Value& v = reply->value();
        if (v.type != Value::Type::array || v.elements.size() != 3 || v.elements[0].text != "subscribe" ||
            v.elements[1].text != channel) {
            connection.close();
            return KV_SERVER_ERROR;
        }
    }
    return KV_SUCCESS;
}

}  // namespace kelvane
