// slot_map.h -- which node serves each of a cluster's 16384 slots, as the
// cluster last told us (CLUSTER SLOTS), and every node it named, masters and
// replicas, which is where the map is asked for again when it goes stale.
#ifndef KELVANE_SLOT_MAP_H
#define KELVANE_SLOT_MAP_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "endpoint.h"
#include "reply_sink.h"
#include "slot.h"

namespace kelvane {

class SlotMap {
public:
    SlotMap() { owner_.fill(-1); }

    // Replaces the map with a CLUSTER SLOTS reply. asked is the node that
    // answered; it stands in for a node that does not know its own address.
    // The slots of a master listed without any address (port 0) are left
    // unserved. False, leaving the map as it was, for a reply of another
    // shape.
    bool load(const Value& reply, const Endpoint& asked);

    // How many slots have a master (kSlotCount: all of them).
    std::size_t covered() const { return covered_; }

    // The master that serves slot, or nullptr when no node does.
    const Endpoint* master_of(uint16_t slot) const;

    // What a MOVED redirection says: slot now lives on master.
    void set_master(uint16_t slot, const Endpoint& master);

    // Every node the map names, masters first.
    std::vector<Endpoint> nodes() const;

private:
    int index_of(const Endpoint& master);

    std::vector<Endpoint> masters_;
    std::vector<Endpoint> replicas_;
    std::array<int16_t, kSlotCount> owner_;  // index into masters_, -1: not served
    std::size_t covered_ = 0;                // slots whose owner_ is not -1
};

}  // namespace kelvane

#endif  // KELVANE_SLOT_MAP_H
