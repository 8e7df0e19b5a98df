// model_reads.cpp -- the sorted-set reads against the model: kv_zscore,
// kv_zrank, kv_zcard, kv_zcount and the four range reads with every flag
// combination, limits, negative ranks and suffixes.
#include <algorithm>
#include <cstring>

#include "byte_text.h"
#include "model_run.h"
#include "range_call.h"

namespace kelvane_model {
namespace {

// The status every read of a member gives before it looks at the member.
int32_t key_status(const KeyState* state, int32_t absent) {
    if (state == nullptr) return absent;
    return state->kind == Kind::Plain ? KV_WRONG_REPLY : KV_SUCCESS;
}

// Where a range result differs from the expected entries, or "".
std::string range_difference(const RangeResult& got, const std::vector<Entry>& want, int32_t flags,
                             const std::string& suffix) {
    std::string listed;
    for (const Entry& e : want) listed += " " + quoted(e.name) + "@" + score_text(e.member.score);
    const std::string expected = "\nexpected " + std::to_string(want.size()) + " members:" + listed;
    if (got.members.size() != want.size()) {
        std::string seen;
        for (const auto& m : got.members) seen += " " + quoted(m);
        return std::to_string(got.members.size()) + " members came back:" + seen + expected;
    }
    for (size_t k = 0; k < want.size(); ++k) {
        const std::string at = "at position " + std::to_string(k) + ": ";
        if (got.members[k] != want[k].name + suffix) {
            return at + "member " + quoted(got.members[k]) + ", expected " + quoted(want[k].name + suffix) + expected;
        }
        if ((flags & ZSET_WITH_SCORES) && !(got.scores[k] == want[k].member.score)) {
            return at + "score " + score_text(got.scores[k]) + ", expected " + score_text(want[k].member.score);
        }
        if (flags & ZSET_WITH_VALUES) {
            const std::optional<std::string> value =
                want[k].member.value ? std::optional(*want[k].member.value + suffix) : std::nullopt;
            if (got.values[k] != value) return at + "value " + quoted(got.values[k]) + ", expected " + quoted(value);
        }
    }
    return "";
}

}  // namespace

void ModelRun::zscore() {
    const std::string k = key(), m = member(k);
    begin("kv_zscore(" + quoted(k) + ", " + quoted(m) + ")");
    const KeyState* state = model_.find(k);
    int32_t want = key_status(state, KV_NOTFOUND);
    if (want == KV_SUCCESS && state->members.count(m) == 0) want = KV_NO_SET_KEY;
    double sc = 42;
    char junk[8] = "junk";
    char* value = junk;
    size_t len = 7;
    const int32_t got = kv_zscore(client_, k.data(), k.size(), m.data(), m.size(), &sc, &value, &len);
    if (got != KV_SUCCESS && value != junk && value != nullptr) mm_.get()->release(value);
    expect_status(got, want);
    if (want != KV_SUCCESS) {
        return expect(sc == 0 && value == nullptr && len == 0, "out-parameters not cleared on a failure");
    }
    expect(value != junk, "the value out-parameter was left unwritten");
    const Member& expected = state->members.at(m);
    const std::optional<std::string> got_value = take_value(value, len, "kv_zscore");
    expect(sc == expected.score, "score " + score_text(sc) + ", expected " + score_text(expected.score));
    expect(got_value == expected.value, "value " + quoted(got_value) + ", expected " + quoted(expected.value));
}

void ModelRun::zrank() {
    const std::string k = key(), m = member(k);
    // A limit means nothing to a rank: refused, and no optional argument is read.
    const bool refused = chance(0.15);
    const int32_t flags = refused ? ZSET_WITH_LIMIT | pick(std::vector<int32_t>{0, ZSET_WITH_VALUES, ZSET_REVERSE,
                                                                               ZSET_REVERSE | ZSET_WITH_VALUES})
                                  : pick(std::vector<int32_t>{0, ZSET_REVERSE, ZSET_WITH_VALUES,
                                                              ZSET_REVERSE | ZSET_WITH_VALUES});
    const bool reverse = (flags & ZSET_REVERSE) != 0, with_value = (flags & ZSET_WITH_VALUES) != 0;
    begin("kv_zrank(" + quoted(k) + ", " + quoted(m) + ", flags " + std::to_string(flags) +
          (refused ? ", no optional arguments)" : ")"));
    const KeyState* state = model_.find(k);
    int32_t want = refused ? KV_INVALID_PARAMETER : key_status(state, KV_NOTFOUND);
    uint32_t expected_rank = 0;
    if (want == KV_SUCCESS) {
        const std::vector<Entry> order = ReferenceModel::ordered(*state, reverse);
        auto at = std::find_if(order.begin(), order.end(), [&](const Entry& e) { return e.name == m; });
        if (at == order.end()) want = KV_NO_SET_KEY;
        expected_rank = static_cast<uint32_t>(at - order.begin());
    }
    uint32_t rank = 99;
    char junk[8] = "junk";
    char* value = junk;
    size_t len = 7;
    int32_t got;
    if (refused) {
        got = kv_zrank(client_, k.data(), k.size(), m.data(), m.size(), &rank, flags);
    } else if (with_value) {
        got = kv_zrank(client_, k.data(), k.size(), m.data(), m.size(), &rank, flags, &value, &len);
    } else {
        got = kv_zrank(client_, k.data(), k.size(), m.data(), m.size(), &rank, flags);
    }
    if (got != KV_SUCCESS && value != junk && value != nullptr) mm_.get()->release(value);
    expect_status(got, want);
    if (want != KV_SUCCESS) {
        expect(rank == 0, "the rank was left at " + std::to_string(rank) + " on a failure");
        if (with_value && !refused) expect(value == nullptr && len == 0, "the value was not cleared on a failure");
        return;
    }
    expect(rank == expected_rank, "rank " + std::to_string(rank) + ", expected " + std::to_string(expected_rank));
    if (!with_value) return;
    expect(value != junk, "the value out-parameter was left unwritten");
    const std::optional<std::string> got_value = take_value(value, len, "kv_zrank");
    const std::optional<std::string>& expected = state->members.at(m).value;
    expect(got_value == expected, "value " + quoted(got_value) + ", expected " + quoted(expected));
}

void ModelRun::zcard() {
    const std::string k = key();
    begin("kv_zcard(" + quoted(k) + ")");
    const KeyState* state = model_.find(k);
    const int32_t want = key_status(state, KV_SUCCESS);
    const size_t expected = want == KV_SUCCESS && state != nullptr ? state->members.size() : 0;
    uint32_t n = 99;
    expect_status(kv_zcard(client_, k.data(), k.size(), &n), want);
    expect(n == expected, "count " + std::to_string(n) + ", expected " + std::to_string(expected));
}

void ModelRun::zcount() {
    const std::string k = key();
    const double min = bound(k), max = bound(k);
    begin("kv_zcount(" + quoted(k) + ", " + score_text(min) + ", " + score_text(max) + ")");
    const KeyState* state = model_.find(k);
    const int32_t want = key_status(state, KV_SUCCESS);
    size_t expected = 0;
    if (want == KV_SUCCESS && state != nullptr) {
        for (const auto& [name, member] : state->members) expected += min <= member.score && member.score <= max;
    }
    uint32_t n = 99;
    expect_status(kv_zcount(client_, k.data(), k.size(), min, max, &n), want);
    expect(n == expected, "count " + std::to_string(n) + ", expected " + std::to_string(expected));
}

void ModelRun::range() {
    const std::string k = key();
    RangeQuery q;
    q.by = chance(0.5) ? RangeBy::Rank : RangeBy::Score;
    if (chance(0.35)) q.suffix = suffix();
    q.flags = (chance(0.5) ? ZSET_WITH_SCORES : 0) | (chance(0.5) ? ZSET_WITH_VALUES : 0) |
              (chance(0.4) ? ZSET_REVERSE : 0);
    bool refused = false;
    if (q.by == RangeBy::Rank) {
        q.start = rank();
        q.stop = rank();
        if (chance(0.08)) {  // a rank range takes no limit
            q.flags |= ZSET_WITH_LIMIT;
            q.pass_optional = false;
            refused = true;
        }
    } else {
        q.min = bound(k);
        q.max = bound(k);
        if (chance(0.5)) {
            q.flags |= ZSET_WITH_LIMIT;
            q.offset = static_cast<int32_t>(below(6));
            q.count = static_cast<int32_t>(below(6)) - 1;
            if (chance(0.1)) q.count = -7;
            if (chance(0.05)) q.offset = -1 - static_cast<int32_t>(below(3));  // refused
            refused = q.offset < 0;
        }
    }
    if (chance(0.04)) {  // unknown bits are refused before any optional argument is read
        q.flags |= pick(std::vector<int32_t>{16, 64, 0x100, 0x40000000});
        q.pass_optional = false;
        refused = true;
    }
    begin(describe(k, q));
    const KeyState* state = model_.find(k);
    const int32_t want = refused ? KV_INVALID_PARAMETER : key_status(state, KV_NOTFOUND);
    const RangeResult got = read_range(client_, mm_.get(), k, q);
    expect(got.fault.empty(), got.fault);
    expect_status(got.status, want);
    if (want != KV_SUCCESS) return;
    std::vector<Entry> expected = ReferenceModel::ordered(*state, (q.flags & ZSET_REVERSE) != 0);
    if (q.by == RangeBy::Rank) {
        expected = ReferenceModel::rank_slice(expected, q.start, q.stop);
    } else {
        std::vector<Entry> selected;
        for (const Entry& e : expected) {
            if (q.min <= e.member.score && e.member.score <= q.max) selected.push_back(e);
        }
        if (q.flags & ZSET_WITH_LIMIT) {
            const size_t from = std::min(selected.size(), static_cast<size_t>(q.offset));
            const size_t to = q.count < 0 ? selected.size() : std::min(selected.size(), from + q.count);
            selected = std::vector<Entry>(selected.begin() + from, selected.begin() + to);
        }
        expected = selected;
    }
    const std::string difference = range_difference(got, expected, q.flags, q.suffix.value_or(""));
    expect(difference.empty(), difference);
}

void ModelRun::whole_key() {
    const std::string k = key();
    RangeQuery q;
    q.flags = ZSET_WITH_SCORES | ZSET_WITH_VALUES;
    begin(describe(k, q) + " and kv_zcard, voidtostring of its first member");
    const KeyState* state = model_.find(k);
    const int32_t want = key_status(state, KV_NOTFOUND);
    const RangeResult got = read_range(client_, mm_.get(), k, q);
    expect(got.fault.empty(), got.fault);
    expect_status(got.status, want);
    if (want != KV_SUCCESS) return;
    const std::string difference = range_difference(got, ReferenceModel::ordered(*state, false), q.flags, "");
    expect(difference.empty(), difference);
    uint32_t n = 99;
    expect_status(kv_zcard(client_, k.data(), k.size(), &n), KV_SUCCESS);
    expect(n == state->members.size(), "kv_zcard " + std::to_string(n) + ", the range read " +
                                           std::to_string(state->members.size()));
    const std::string& first = got.members.front();
    char* text = voidtostring(first.data(), first.size(), mm_.get());
    expect(text != nullptr, "voidtostring gave NULL");
    const bool same = std::memcmp(text, first.data(), first.size()) == 0 && text[first.size()] == '\0';
    mm_.get()->release(text);
    expect(same, "voidtostring did not copy the member with a zero byte after it");
}

}  // namespace kelvane_model
