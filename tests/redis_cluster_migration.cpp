// redis_cluster_migration.cpp -- moving one slot between masters the way an operator does, in steps a test can
// interleave with its own calls: while the slot is open the source answers ASK for keys it no longer holds and
// TRYAGAIN for calls whose keys are split between the two nodes.
#include <stdexcept>

#include "redis_cluster.h"

namespace kelvane_test {

Migration RedisCluster::open_migration(int slot, int target) const {
    Migration m;
    m.slot = slot;
    m.source = owner_of_slot(slot);
    m.target = target;
    if (m.source == target) throw std::runtime_error("slot " + std::to_string(slot) + " is already on the target");
    const std::string s = std::to_string(slot);
    // The target first: once the source starts answering ASK, the target must already accept ASKING.
    must(target, {"CLUSTER", "SETSLOT", s, "IMPORTING", node_id(m.source)});
    must(m.source, {"CLUSTER", "SETSLOT", s, "MIGRATING", node_id(target)});
    return m;
}

void RedisCluster::move_keys(Migration& m, const std::vector<std::string>& server_keys) const {
    if (server_keys.empty()) return;
    Argv migrate = {"MIGRATE", "127.0.0.1", std::to_string(m.target), "", "0", "5000", "KEYS"};
    migrate.insert(migrate.end(), server_keys.begin(), server_keys.end());
    // NOKEY: none of them was there (anymore); anything else but OK (BUSYKEY, IOERR) is a broken migration.
    const std::string reply = must(m.source, migrate);
    if (reply != "OK" && reply != "NOKEY") throw std::runtime_error("MIGRATE: " + reply);
    m.moved += server_keys.size();
}

size_t RedisCluster::move_batch(Migration& m, size_t batch) const {
    const NodeReply keys =
        node_command(m.source, {"CLUSTER", "GETKEYSINSLOT", std::to_string(m.slot), std::to_string(batch)});
    if (keys.kind != NodeReply::kArray) throw std::runtime_error("CLUSTER GETKEYSINSLOT: " + keys.text());
    std::vector<std::string> names;
    for (const auto& k : keys.elements) names.push_back(k.str);
    move_keys(m, names);
    return names.size();
}

void RedisCluster::close_migration(const Migration& m) const {
    const Argv assign = {"CLUSTER", "SETSLOT", std::to_string(m.slot), "NODE", node_id(m.target)};
    // The target first, so that it owns the slot (with a new epoch that the others will take) before the source
    // stops answering ASK and starts answering MOVED; the source refuses while it still holds keys of the slot.
    must(m.target, assign);
    must(m.source, assign);
    for (int port : masters()) {
        if (port != m.target && port != m.source) must(port, assign);
    }
    wait_healthy();
    if (owner_of_slot(m.slot) != m.target) {
        throw std::runtime_error("slot " + std::to_string(m.slot) + " did not end on " + std::to_string(m.target));
    }
}

Migration RedisCluster::migrate_slot(int slot, int target, const MigrationSteps& steps) const {
    Migration m = open_migration(slot, target);
    if (steps.opened) steps.opened();
    while (move_batch(m, steps.batch) > 0) {
        if (steps.batch_moved) steps.batch_moved(m);
    }
    // The source never creates a key of an open slot (it answers ASK instead), so it stays empty from here on.
    if (steps.emptied) steps.emptied();
    close_migration(m);
    return m;
}

}  // namespace kelvane_test
