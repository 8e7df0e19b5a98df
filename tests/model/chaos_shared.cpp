// chaos_shared.cpp -- a chaos client's random operations on the keys every
// client shares. Other clients change these keys at the same time, so only
// what holds whatever they do is checked: the statuses a call may give, the
// shape of its results, and that a range read lists its members in order
// (each call is atomic on the server). Some writes give keys expiries of a
// second or two, so keys also expire in the middle of it all.
#include <cmath>
#include <cstring>

#include "byte_text.h"
#include "chaos_client.h"
#include "range_call.h"

namespace kelvane_model {
namespace {

using namespace std::string_literals;

const std::vector<std::string> kSharedKeys = {"s", "", "{", "%", "s\0t"s, "kv{s}"};
const std::vector<std::string> kSharedMembers = {"a", "b", "", "\0"s, "{m}", "1", "2"};
const std::vector<std::string> kSharedValues = {"", "v", "\0w"s, std::string(500, 'v')};

// Where a range result breaks the order of the set, or "".
std::string out_of_order(const RangeResult& r, bool reverse, size_t suffix_len) {
    if (r.scores.size() != r.members.size()) return "";
    for (size_t k = 1; k < r.members.size(); ++k) {
        // Compare names without the suffix, which can change their byte order.
        const std::string a = r.members[k - 1].substr(0, r.members[k - 1].size() - suffix_len);
        const std::string b = r.members[k].substr(0, r.members[k].size() - suffix_len);
        const double sa = reverse ? r.scores[k] : r.scores[k - 1], sb = reverse ? r.scores[k - 1] : r.scores[k];
        const std::string& na = reverse ? b : a;
        const std::string& nb = reverse ? a : b;
        if (!(sa < sb || (sa == sb && na < nb))) {
            return "members " + quoted(a) + "@" + score_text(r.scores[k - 1]) + " and " + quoted(b) + "@" +
                   score_text(r.scores[k]) + " are out of order";
        }
    }
    return "";
}

}  // namespace

int32_t ChaosClient::shared_ttl() {
    const uint64_t kind = below(20);
    if (kind < 12) return 0;
    if (kind < 15) return COMMIT_TTL(86400);
    if (kind < 17) return 86400;
    if (kind < 19) return COMMIT_TTL(0);
    return COMMIT_TTL(1 + static_cast<int32_t>(below(2)));  // expires during the run
}

void ChaosClient::shared_operation() {
    const std::string key = pick(kSharedKeys);
    const uint64_t roll = below(10);
    if (roll < 4) return shared_write(key);
    if (roll < 8) return shared_read(key);
    shared_removal(key);
}

void ChaosClient::shared_write(const std::string& key) {
    const std::string m = pick(kSharedMembers), v = pick(kSharedValues);
    const char *k = key.data(), *mp = m.data(), *vp = v.data();
    const size_t kl = key.size(), ml = m.size(), vl = v.size();
    const int32_t ttl = shared_ttl();
    const double sc = score(), finite = static_cast<double>(below(7)) - 2;
    const std::string on = " on " + quoted(key) + " with " + quoted(m);
    switch (below(8)) {
        case 0:
            allow(kv_zadd(client_, k, kl, sc, mp, ml, ttl), {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY},
                  "kv_zadd" + on);
            break;
        case 1:
            allow(kv_zaddval(client_, k, kl, sc, mp, ml, vp, vl, ttl), {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY},
                  "kv_zaddval" + on);
            break;
        case 2: {
            const double scores[] = {sc, finite, sc};
            const char* names[] = {mp, "b", mp};
            const char* values[] = {vp, "w", "last"};
            const size_t lens[] = {ml, 1, ml}, value_lens[] = {vl, 1, 4};
            allow(kv_zmaddval(client_, k, kl, scores, names, 3, lens, values, value_lens, ttl),
                  {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY}, "kv_zmaddval" + on);
            break;
        }
        case 3:
            // Finite increments: the sum is never NaN, whatever the others wrote.
            allow(kv_zaddvalmax(client_, k, kl, mp, ml, vp, vl, finite, ttl),
                  {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY}, "kv_zaddvalmax" + on);
            break;
        case 4:
            allow(kv_zaddmaxinc(client_, k, kl, static_cast<int32_t>(finite), ttl),
                  {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY}, "kv_zaddmaxinc on " + quoted(key));
            break;
        case 5: {
            char* kept = nullptr;
            const int32_t status = kv_zadddis(client_, k, kl, finite, mp, ml, 2, &kept, ttl);
            const bool named = kept != nullptr;
            mm_.get()->release(kept);
            allow(status, {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY}, "kv_zadddis" + on);
            if (named && status != KV_SUCCESS) {
                throw ChaosFailure{kChaosUnexpected, "kv_zadddis" + on + ": a name came back with status " +
                                                         std::to_string(status)};
            }
            break;
        }
        case 6: {
            double new_score = 0;
            allow(kv_zincrby(client_, k, kl, mp, ml, finite, &new_score, ttl), {KV_SUCCESS, KV_WRONG_REPLY},
                  "kv_zincrby" + on);
            break;
        }
        default:
            allow(kv_sadd(client_, k, kl, mp, ml, ttl), {KV_SUCCESS, KV_ALREADY_EXISTS, KV_WRONG_REPLY},
                  "kv_sadd" + on);
    }
}

void ChaosClient::shared_read(const std::string& key) {
    const std::string m = pick(kSharedMembers);
    const char *k = key.data(), *mp = m.data();
    const size_t kl = key.size(), ml = m.size();
    const std::string on = " on " + quoted(key) + " with " + quoted(m);
    switch (below(5)) {
        case 0: {
            double sc = 0;
            char* value = nullptr;
            size_t len = 0;
            const int32_t status = kv_zscore(client_, k, kl, mp, ml, &sc, &value, &len);
            mm_.get()->release(value);
            allow(status, {KV_SUCCESS, KV_NOTFOUND, KV_NO_SET_KEY, KV_WRONG_REPLY}, "kv_zscore" + on);
            break;
        }
        case 1: {
            uint32_t rank = 0;
            char* value = nullptr;
            size_t len = 0;
            const int32_t status = kv_zrank(client_, k, kl, mp, ml, &rank, ZSET_WITH_VALUES, &value, &len);
            mm_.get()->release(value);
            allow(status, {KV_SUCCESS, KV_NOTFOUND, KV_NO_SET_KEY, KV_WRONG_REPLY}, "kv_zrank" + on);
            break;
        }
        case 2: {
            uint32_t n = 0;
            allow(kv_zcount(client_, k, kl, -1, 3, &n), {KV_SUCCESS, KV_WRONG_REPLY}, "kv_zcount on " + quoted(key));
            break;
        }
        default: {
            RangeQuery q;
            q.by = chance(0.5) ? RangeBy::Rank : RangeBy::Score;
            q.start = static_cast<int32_t>(below(5)) - 2;
            q.stop = static_cast<int32_t>(below(9)) - 3;
            q.min = chance(0.3) ? -INFINITY : static_cast<double>(below(5)) - 2;
            q.max = chance(0.3) ? INFINITY : static_cast<double>(below(5));
            q.flags = ZSET_WITH_SCORES | (chance(0.5) ? ZSET_WITH_VALUES : 0) | (chance(0.5) ? ZSET_REVERSE : 0);
            if (q.by == RangeBy::Score && chance(0.3)) {
                q.flags |= ZSET_WITH_LIMIT;
                q.offset = static_cast<int32_t>(below(3));
                q.count = static_cast<int32_t>(below(4)) - 1;
            }
            if (chance(0.3)) q.suffix = pick(std::vector<std::string>{"", "/", "\0"s});
            const RangeResult r = read_range(client_, mm_.get(), key, q);
            const std::string call = describe(key, q);
            if (!r.fault.empty()) throw ChaosFailure{kChaosUnexpected, call + ": " + r.fault};
            allow(r.status, {KV_SUCCESS, KV_NOTFOUND, KV_WRONG_REPLY}, call);
            const std::string order = out_of_order(r, (q.flags & ZSET_REVERSE) != 0, q.suffix ? q.suffix->size() : 0);
            if (!order.empty()) throw ChaosFailure{kChaosUnexpected, call + ": " + order};
        }
    }
}

void ChaosClient::shared_removal(const std::string& key) {
    const std::string m = pick(kSharedMembers);
    const char *k = key.data(), *mp = m.data();
    const size_t kl = key.size(), ml = m.size();
    const std::string on = " on " + quoted(key);
    uint32_t removed = 0;
    switch (below(6)) {
        case 0:
            allow(kv_zrem(client_, k, kl, mp, ml), {KV_SUCCESS, KV_NOTFOUND, KV_WRONG_REPLY}, "kv_zrem" + on);
            break;
        case 1: {
            const char* names[] = {mp, "a", mp};
            const size_t lens[] = {ml, 1, ml};
            allow(kv_zmrem(client_, k, kl, names, 3, lens, &removed), {KV_SUCCESS, KV_NOTFOUND, KV_WRONG_REPLY},
                  "kv_zmrem" + on);
            break;
        }
        case 2:
            allow(kv_zremrangebyscore(client_, k, kl, 0, 1, &removed), {KV_SUCCESS, KV_WRONG_REPLY},
                  "kv_zremrangebyscore" + on);
            break;
        case 3:
            allow(kv_zremrangebyrank(client_, k, kl, -2, -1, &removed), {KV_SUCCESS, KV_WRONG_REPLY},
                  "kv_zremrangebyrank" + on);
            break;
        case 4:
            allow(kv_del(client_, k, kl), {KV_SUCCESS, KV_NOTFOUND}, "kv_del" + on);
            break;
        default: {
            int32_t ttl = -1;
            const int32_t status = kv_get_ttl(client_, k, kl, &ttl);
            allow(status, {KV_SUCCESS, KV_NOTFOUND}, "kv_get_ttl" + on);
            if (ttl < 0 || ttl > 86400) {
                throw ChaosFailure{kChaosUnexpected, "kv_get_ttl" + on + ": time-to-live " + std::to_string(ttl)};
            }
        }
    }
}

}  // namespace kelvane_model
