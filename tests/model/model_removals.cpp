// model_removals.cpp -- the four removals, kv_del and kv_get_ttl against the
// model. A removal that takes a set's last member takes the key with it,
// expiry included.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>
#include <thread>

#include "byte_text.h"
#include "model_run.h"

namespace kelvane_model {
namespace {

// The members of an ordered list, for removing them from the model.
std::vector<std::string> names_of(const std::vector<Entry>& entries) {
    std::vector<std::string> names;
    for (const Entry& e : entries) names.push_back(e.name);
    return names;
}

}  // namespace

void ModelRun::zrem() {
    const std::string k = key(), m = member(k);
    begin("kv_zrem(" + quoted(k) + ", " + quoted(m) + ")");
    const KeyState* state = model_.find(k);
    int32_t want = KV_NOTFOUND;
    if (state != nullptr && state->kind == Kind::Plain) want = KV_WRONG_REPLY;
    if (state != nullptr && state->kind == Kind::Sorted && state->members.count(m) != 0) want = KV_SUCCESS;
    expect_status(kv_zrem(client_, k.data(), k.size(), m.data(), m.size()), want);
    if (want != KV_SUCCESS) return;
    bool existed = false;
    model_.open(k, Kind::Sorted, existed).members.erase(m);
    model_.drop_if_empty(k);
}

void ModelRun::zmrem() {
    const std::string k = key();
    const size_t n = 1 + below(4);
    std::vector<std::string> names;
    std::string text = "kv_zmrem(" + quoted(k) + ", [";
    for (size_t i = 0; i < n; ++i) {
        names.push_back(i > 0 && chance(0.2) ? names[below(i)] : member(k));
        text += (i ? ", " : "") + quoted(names[i]);
    }
    begin(text + "])");
    const KeyState* state = model_.find(k);
    int32_t want = KV_NOTFOUND;
    uint32_t expected = 0;
    if (state != nullptr && state->kind == Kind::Plain) want = KV_WRONG_REPLY;
    if (state != nullptr && state->kind == Kind::Sorted) {
        // A name given twice is removed once.
        for (const auto& name : std::set<std::string>(names.begin(), names.end())) {
            expected += static_cast<uint32_t>(state->members.count(name));
        }
        if (expected > 0) want = KV_SUCCESS;
    }
    std::vector<const char*> ptrs;
    std::vector<size_t> lens;
    for (const auto& name : names) {
        ptrs.push_back(name.data());
        lens.push_back(name.size());
    }
    uint32_t removed = 99;
    expect_status(kv_zmrem(client_, k.data(), k.size(), ptrs.data(), static_cast<uint32_t>(n), lens.data(), &removed),
                  want);
    expect(removed == expected, "removed " + std::to_string(removed) + ", expected " + std::to_string(expected));
    if (want != KV_SUCCESS) return;
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Sorted, existed);
    for (const auto& name : names) written.members.erase(name);
    model_.drop_if_empty(k);
}

void ModelRun::zremrangebyscore() {
    const std::string k = key();
    const double min = bound(k), max = bound(k);
    begin("kv_zremrangebyscore(" + quoted(k) + ", " + score_text(min) + ", " + score_text(max) + ")");
    const KeyState* state = model_.find(k);
    std::vector<std::string> doomed;
    if (state != nullptr && state->kind == Kind::Sorted) {
        for (const auto& [name, member] : state->members) {
            if (min <= member.score && member.score <= max) doomed.push_back(name);
        }
    }
    const int32_t want = state != nullptr && state->kind == Kind::Plain ? KV_WRONG_REPLY : KV_SUCCESS;
    uint32_t removed = 99;
    expect_status(kv_zremrangebyscore(client_, k.data(), k.size(), min, max, &removed), want);
    expect(removed == doomed.size(), "removed " + std::to_string(removed) + ", expected " +
                                         std::to_string(doomed.size()));
    if (doomed.empty()) return;
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Sorted, existed);
    for (const auto& name : doomed) written.members.erase(name);
    model_.drop_if_empty(k);
}

void ModelRun::zremrangebyrank() {
    const std::string k = key();
    const int32_t start = rank(), stop = rank();
    begin("kv_zremrangebyrank(" + quoted(k) + ", " + std::to_string(start) + ", " + std::to_string(stop) + ")");
    const KeyState* state = model_.find(k);
    std::vector<std::string> doomed;
    if (state != nullptr && state->kind == Kind::Sorted) {
        doomed = names_of(ReferenceModel::rank_slice(ReferenceModel::ordered(*state, false), start, stop));
    }
    const int32_t want = state != nullptr && state->kind == Kind::Plain ? KV_WRONG_REPLY : KV_SUCCESS;
    uint32_t removed = 99;
    expect_status(kv_zremrangebyrank(client_, k.data(), k.size(), start, stop, &removed), want);
    expect(removed == doomed.size(), "removed " + std::to_string(removed) + ", expected " +
                                         std::to_string(doomed.size()));
    if (doomed.empty()) return;
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Sorted, existed);
    for (const auto& name : doomed) written.members.erase(name);
    model_.drop_if_empty(k);
}

void ModelRun::del() {
    const std::string k = key();
    begin("kv_del(" + quoted(k) + ")");
    expect_status(kv_del(client_, k.data(), k.size()), model_.find(k) != nullptr ? KV_SUCCESS : KV_NOTFOUND);
    model_.erase(k);
}

void ModelRun::get_ttl(const std::string& k) {
    begin("kv_get_ttl(" + quoted(k) + ")");
    const KeyState* state = model_.find(k);
    int32_t ttl = 77;
    CallTime at;
    const int32_t got = timed(at, [&] { return kv_get_ttl(client_, k.data(), k.size(), &ttl); });
    expect_status(got, state != nullptr ? KV_SUCCESS : KV_NOTFOUND);
    if (state == nullptr || !state->expiry) {
        return expect(ttl == 0, "time-to-live " + std::to_string(ttl) + ", expected 0");
    }
    // What is left lies between these two, give or take the server's
    // millisecond clock; whole seconds round up, so a key that expires
    // reports at least 1 and a second that has begun to run still counts.
    const int64_t least_ms = state->expiry->earliest_ms - at.after_ms - 2;
    const int64_t most_ms = state->expiry->latest_ms - at.before_ms + 2;
    const auto up = [](int64_t ms) { return static_cast<int32_t>(std::ceil(static_cast<double>(ms) / 1000)); };
    const int32_t low = std::max(1, up(least_ms)), high = up(most_ms);
    expect(low <= ttl && ttl <= high, "time-to-live " + std::to_string(ttl) + " s, expected " +
                                          std::to_string(low) + (low == high ? "" : ".." + std::to_string(high)) +
                                          " s: " + std::to_string(least_ms) + ".." + std::to_string(most_ms) +
                                          " ms are left, rounded up to whole seconds");
}

void ModelRun::let_time_pass() {
    const auto pause = std::chrono::milliseconds(550 + below(400));
    begin("(" + std::to_string(pause.count()) + " ms without a call)");
    std::this_thread::sleep_for(pause);
    for (const std::string& k : keys_) get_ttl(k);
}

}  // namespace kelvane_model
