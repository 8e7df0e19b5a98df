// cluster_view.h -- what one node says of its cluster: the slot map
// (CLUSTER SLOTS) and the newest configuration epoch it has seen (CLUSTER
// INFO), asked for in one round trip; and which of two such answers to
// believe when nodes disagree.
#ifndef KELVANE_CLUSTER_VIEW_H
#define KELVANE_CLUSTER_VIEW_H

#include <cstdint>

#include "deadline.h"
#include "endpoint.h"
#include "node_connection.h"
#include "slot_map.h"

namespace kelvane {

struct ClusterView {
    SlotMap map;
    // cluster_current_epoch: every failover and every slot handed over
    // raises it, so a node that has seen a later change reports a higher
    // one. -1 when the node did not say (CLUSTER INFO refused).
    long long epoch = -1;
};

// Asks the node behind connection (asked: its address). KV_SUCCESS with
// *view filled; otherwise a transport status, the status of the node's
// error reply, or KV_SERVER_ERROR for a slot map of another shape.
int32_t ask_cluster_view(NodeConnection& connection, const Endpoint& asked, Deadline deadline,
                         ClusterView* view);

// Whether a is the better answer than b: its map serves more slots, or as
// many and it comes from a node that has seen a newer epoch.
bool better_view(const ClusterView& a, const ClusterView& b);

}  // namespace kelvane

#endif  // KELVANE_CLUSTER_VIEW_H
