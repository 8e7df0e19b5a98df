// slot_map.cpp -- reading CLUSTER SLOTS: an array of
// [first slot, last slot, master, replica...], each node being
// [host, port, id, ...].
#include "slot_map.h"

#include <algorithm>

namespace kelvane {
namespace {

// A node entry: [host, port, id, ...]. False for one of another shape. A
// node the cluster knows no address of (port 0: it answers from another
// address than the one the cluster knew, say restarted with a new identity)
// comes out with port 0.
bool read_node(const Value& v, const Endpoint& asked, Endpoint* out) {
    if (v.type != Value::Type::array || v.elements.size() < 2 ||
        (v.elements[0].type != Value::Type::text && v.elements[0].type != Value::Type::nil) ||
        v.elements[1].type != Value::Type::integer || v.elements[1].integer < 0 ||
        v.elements[1].integer > 65535) {
        return false;
    }
    out->port = static_cast<int>(v.elements[1].integer);
    out->host = out->port == 0 ? std::string() : v.elements[0].text;
    // "", "?" or nil with a port: the node does not know its own address
    // (or the cluster names none); it is the one we asked.
    if (out->port != 0 && (out->host.empty() || out->host == "?")) out->host = asked.host;
    return true;
}

bool read_slot(const Value& v, long long* slot) {
    if (v.type != Value::Type::integer || v.integer < 0 || v.integer >= kSlotCount) return false;
    *slot = v.integer;
    return true;
}

}  // namespace

int SlotMap::index_of(const Endpoint& master) {
    const auto it = std::find(masters_.begin(), masters_.end(), master);
    if (it != masters_.end()) return static_cast<int>(it - masters_.begin());
    masters_.push_back(master);
    return static_cast<int>(masters_.size() - 1);
}

bool SlotMap::load(const Value& reply, const Endpoint& asked) {
    if (reply.type != Value::Type::array) return false;
    SlotMap fresh;
    for (const Value& range : reply.elements) {
        long long first = 0, last = 0;
        Endpoint master;
        if (range.type != Value::Type::array || range.elements.size() < 3 ||
            !read_slot(range.elements[0], &first) || !read_slot(range.elements[1], &last) ||
            first > last || !read_node(range.elements[2], asked, &master)) {
            return false;
        }
        // A master without an address serves nobody: its slots stay
        // unserved until the cluster names another master for them.
        if (master.port != 0) {
            const auto index = static_cast<int16_t>(fresh.index_of(master));
            for (long long s = first; s <= last; ++s) {
                fresh.covered_ += fresh.owner_[static_cast<std::size_t>(s)] < 0;
                fresh.owner_[static_cast<std::size_t>(s)] = index;
            }
        }
        for (std::size_t r = 3; r < range.elements.size(); ++r) {
            Endpoint replica;
            if (read_node(range.elements[r], asked, &replica) && replica.port != 0 &&
                std::find(fresh.replicas_.begin(), fresh.replicas_.end(), replica) ==
                    fresh.replicas_.end()) {
                fresh.replicas_.push_back(replica);
            }
        }
    }
    *this = std::move(fresh);
    return true;
}

const Endpoint* SlotMap::master_of(uint16_t slot) const {
    const int16_t index = owner_[slot % kSlotCount];
    return index < 0 ? nullptr : &masters_[static_cast<std::size_t>(index)];
}

void SlotMap::set_master(uint16_t slot, const Endpoint& master) {
    int16_t& owner = owner_[slot % kSlotCount];
    covered_ += owner < 0;
    owner = static_cast<int16_t>(index_of(master));
}

std::vector<Endpoint> SlotMap::nodes() const {
    std::vector<Endpoint> all = masters_;
    for (const Endpoint& r : replicas_) {
        if (std::find(all.begin(), all.end(), r) == all.end()) all.push_back(r);
    }
    return all;
}

}  // namespace kelvane
