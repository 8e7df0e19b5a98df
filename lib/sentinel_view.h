// sentinel_view.h -- what the nodes of a store behind Redis Sentinel say:
// a Sentinel, of the master it watches under a name (SENTINEL
// get-master-addr-by-name) and of the other Sentinels watching it (SENTINEL
// sentinels), asked in one round trip; a data node, of its role (ROLE); and
// a Sentinel's announcements of a failover, subscribed to on a connection of
// its own.
#ifndef KELVANE_SENTINEL_VIEW_H
#define KELVANE_SENTINEL_VIEW_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "deadline.h"
#include "endpoint.h"
#include "node_connection.h"

namespace kelvane {

struct SentinelView {
    bool knows_name = false;          // the Sentinel watches a master of that name
    Endpoint master;                  // its address, when it does
    std::vector<Endpoint> sentinels;  // the other Sentinels it knows for the name
};

// Asks the Sentinel behind connection about the master named name.
// KV_SUCCESS with *view filled; otherwise a transport status, the status of
// its error reply, or KV_SERVER_ERROR for an answer of another shape.
int32_t ask_sentinel(NodeConnection& connection, std::string_view name, Deadline deadline,
                     SentinelView* view);

// The node's role as ROLE names it ("master", "slave", "sentinel") in
// *role. KV_SUCCESS, a transport status, the status of its error reply, or
// KV_SERVER_ERROR for an answer of another shape.
int32_t ask_role(NodeConnection& connection, Deadline deadline, std::string* role);

// Subscribes the connection to the Sentinel's failover announcements
// (+switch-master, +promoted-slave). From then on the connection only
// receives: any bytes that arrive on it mean that the Sentinel has switched
// some master to another node. KV_SUCCESS, or why not.
int32_t watch_failovers(NodeConnection& connection, Deadline deadline);

}  // namespace kelvane

#endif  // KELVANE_SENTINEL_VIEW_H
