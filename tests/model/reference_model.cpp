// reference_model.cpp -- the in-memory store and the rules shared by its
// operations: expiry, order, rank slices and score names.
#include "reference_model.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "byte_text.h"
#include "kelvane.h"

namespace kelvane_model {

const KeyState* ReferenceModel::find(const std::string& key) const {
    auto it = keys_.find(key);
    return it == keys_.end() ? nullptr : &it->second;
}

bool ReferenceModel::holds(const std::string& key, Kind kind) const {
    const KeyState* state = find(key);
    return state != nullptr && state->kind == kind;
}

KeyState& ReferenceModel::open(const std::string& key, Kind kind, bool& existed) {
    auto [it, created] = keys_.try_emplace(key);
    existed = !created;
    if (created) it->second.kind = kind;
    return it->second;
}

void ReferenceModel::apply_ttl(KeyState& state, bool existed, int32_t ttl, const CallTime& at) {
    const bool commit = (ttl & KV_TTL_COMMIT_BIT) != 0;
    const int64_t seconds = ttl & ~KV_TTL_COMMIT_BIT;
    if (existed && !commit) return;
    if (seconds == 0) {
        state.expiry.reset();
    } else {
        state.expiry = Expiry{at.before_ms + seconds * 1000, at.after_ms + seconds * 1000};
    }
}

void ReferenceModel::drop_if_empty(const std::string& key) {
    auto it = keys_.find(key);
    if (it != keys_.end() && it->second.kind == Kind::Sorted && it->second.members.empty()) keys_.erase(it);
}

void ReferenceModel::erase(const std::string& key) { keys_.erase(key); }

std::vector<Entry> ReferenceModel::ordered(const KeyState& state, bool reverse) {
    std::vector<Entry> list;
    for (const auto& [name, member] : state.members) list.push_back(Entry{name, member});
    // std::string compares its bytes as unsigned char, as the store does.
    std::stable_sort(list.begin(), list.end(), [](const Entry& a, const Entry& b) {
        if (a.member.score != b.member.score) return a.member.score < b.member.score;
        return a.name < b.name;
    });
    if (reverse) std::reverse(list.begin(), list.end());
    return list;
}

std::vector<Entry> ReferenceModel::rank_slice(const std::vector<Entry>& list, int64_t start, int64_t stop) {
    const int64_t n = static_cast<int64_t>(list.size());
    if (start < 0) start += n;
    if (stop < 0) stop += n;
    if (start < 0) start = 0;
    if (start > stop || start >= n) return {};
    if (stop >= n) stop = n - 1;
    return std::vector<Entry>(list.begin() + start, list.begin() + stop + 1);
}

std::optional<double> ReferenceModel::highest(const KeyState* state) {
    if (state == nullptr || state->kind != Kind::Sorted || state->members.empty()) return std::nullopt;
    double top = -INFINITY;
    for (const auto& [name, member] : state->members) top = std::max(top, member.score);
    return top;
}

std::string ReferenceModel::score_name(double score) {
    if (score == 0) return "0";
    if (score == std::floor(score)) {
        char whole[512];  // DBL_MAX has 309 digits
        std::snprintf(whole, sizeof whole, "%.0f", score);
        return whole;
    }
    return score_text(score);
}

}  // namespace kelvane_model
