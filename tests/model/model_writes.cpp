// model_writes.cpp -- the eight sorted-set writes and kv_sadd, predicted from
// the model, made, and applied to the model. Every write that lands follows
// the time-to-live rule, which the model applies with the call's time.
#include <cmath>
#include <cstring>

#include "byte_text.h"
#include "model_run.h"

namespace kelvane_model {
namespace {

// The status of an insertion of names into a sorted set: the other kind is
// refused, a name that was there already makes it KV_ALREADY_EXISTS.
int32_t insertion_status(const KeyState* state, const std::vector<std::string>& names) {
    if (state == nullptr) return KV_SUCCESS;
    if (state->kind == Kind::Plain) return KV_WRONG_REPLY;
    for (const auto& name : names) {
        if (state->members.count(name) != 0) return KV_ALREADY_EXISTS;
    }
    return KV_SUCCESS;
}

}  // namespace

void ModelRun::zadd(bool with_value) {
    const std::string k = key(), m = member(k), v = value();
    const double sc = score();
    const int32_t t = ttl();
    begin(std::string(with_value ? "kv_zaddval(" : "kv_zadd(") + quoted(k) + ", " + score_text(sc) + ", " +
          quoted(m) + (with_value ? ", " + quoted(v) : "") + ", " + ttl_text(t) + ")");
    const int32_t want = insertion_status(model_.find(k), {m});
    CallTime at;
    const int32_t got = timed(at, [&] {
        return with_value ? kv_zaddval(client_, k.data(), k.size(), sc, m.data(), m.size(), v.data(), v.size(), t)
                          : kv_zadd(client_, k.data(), k.size(), sc, m.data(), m.size(), t);
    });
    expect_status(got, want);
    if (want == KV_WRONG_REPLY) return;
    bool existed = false;
    KeyState& state = model_.open(k, Kind::Sorted, existed);
    Member& slot = state.members[m];  // an existing member keeps its value unless one is given
    slot.score = sc;
    if (with_value) slot.value = v;
    ReferenceModel::apply_ttl(state, existed, t, at);
}

void ModelRun::zmadd(bool with_values) {
    const std::string k = key();
    const size_t n = 1 + below(4);
    std::vector<std::string> names, values;
    std::vector<double> scores;
    std::string text = std::string(with_values ? "kv_zmaddval(" : "kv_zmadd(") + quoted(k) + ", [";
    for (size_t i = 0; i < n; ++i) {
        // Now and then a name given twice in one batch: the last one counts.
        names.push_back(i > 0 && chance(0.25) ? names[below(i)] : member(k));
        scores.push_back(score());
        values.push_back(value());
        text += (i ? ", (" : "(") + quoted(names[i]) + ", " + score_text(scores[i]) +
                (with_values ? ", " + quoted(values[i]) : "") + ")";
    }
    const int32_t t = ttl();
    begin(text + "], " + ttl_text(t) + ")");
    std::vector<const char*> name_ptrs, value_ptrs;
    std::vector<size_t> name_lens, value_lens;
    for (size_t i = 0; i < n; ++i) {
        name_ptrs.push_back(names[i].data());
        name_lens.push_back(names[i].size());
        value_ptrs.push_back(values[i].data());
        value_lens.push_back(values[i].size());
    }
    const int32_t want = insertion_status(model_.find(k), names);
    const auto count = static_cast<uint32_t>(n);
    CallTime at;
    const int32_t got = timed(at, [&] {
        return with_values ? kv_zmaddval(client_, k.data(), k.size(), scores.data(), name_ptrs.data(), count,
                                         name_lens.data(), value_ptrs.data(), value_lens.data(), t)
                           : kv_zmadd(client_, k.data(), k.size(), scores.data(), name_ptrs.data(), count,
                                      name_lens.data(), t);
    });
    expect_status(got, want);
    if (want == KV_WRONG_REPLY) return;
    bool existed = false;
    KeyState& state = model_.open(k, Kind::Sorted, existed);
    for (size_t i = 0; i < n; ++i) {
        Member& slot = state.members[names[i]];
        slot.score = scores[i];
        if (with_values) slot.value = values[i];
    }
    ReferenceModel::apply_ttl(state, existed, t, at);
}

void ModelRun::zaddvalmax() {
    const std::string k = key(), m = member(k), v = value();
    const double increment = score();
    const int32_t t = ttl();
    begin("kv_zaddvalmax(" + quoted(k) + ", " + quoted(m) + ", " + quoted(v) + ", " + score_text(increment) +
          ", " + ttl_text(t) + ")");
    const KeyState* state = model_.find(k);
    const double sc = ReferenceModel::highest(state).value_or(0) + increment;
    int32_t want = insertion_status(state, {m});
    // Infinities of both signs add up to no number, which no set can hold.
    if (want != KV_WRONG_REPLY && std::isnan(sc)) want = KV_INVALID_PARAMETER;
    CallTime at;
    const int32_t got = timed(at, [&] {
        return kv_zaddvalmax(client_, k.data(), k.size(), m.data(), m.size(), v.data(), v.size(), increment, t);
    });
    expect_status(got, want);
    if (want != KV_SUCCESS && want != KV_ALREADY_EXISTS) return;
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Sorted, existed);
    written.members[m] = Member{sc, v};
    ReferenceModel::apply_ttl(written, existed, t, at);
}

void ModelRun::zaddmaxinc() {
    const std::string k = key();
    const KeyState* state = model_.find(k);
    const std::optional<double> top = ReferenceModel::highest(state);
    // The decimal name of an infinite score is not defined: such a set gets
    // another write instead.
    if (top && std::isinf(*top)) return zadd(false);
    const int32_t increment = chance(0.9) ? static_cast<int32_t>(below(9)) - 3
                                          : pick(std::vector<int32_t>{INT32_MAX, INT32_MIN, 1000});
    const int32_t t = ttl();
    begin("kv_zaddmaxinc(" + quoted(k) + ", " + std::to_string(increment) + ", " + ttl_text(t) + ")");
    const double sc = top.value_or(0) + increment;
    const std::string name = ReferenceModel::score_name(sc);
    const int32_t want = insertion_status(state, {name});
    CallTime at;
    const int32_t got = timed(at, [&] { return kv_zaddmaxinc(client_, k.data(), k.size(), increment, t); });
    if (got != want) {
        fail("status " + std::to_string(got) + ", expected " + std::to_string(want) + " (the new member is " +
             quoted(name) + ")");
    }
    if (want == KV_WRONG_REPLY) return;
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Sorted, existed);
    written.members[name] = Member{sc, std::nullopt};  // an existing member loses its value
    ReferenceModel::apply_ttl(written, existed, t, at);
}

void ModelRun::zadddis() {
    const std::string k = key(), m = member(k);
    double sc = score();
    while (!std::isfinite(sc)) sc = score();  // score - max is then never NaN
    const double drift = pick(std::vector<double>{0, 1, 2.5, 5, 100, -1});
    const int32_t t = ttl();
    begin("kv_zadddis(" + quoted(k) + ", " + score_text(sc) + ", " + quoted(m) + ", drift " + score_text(drift) +
          ", " + ttl_text(t) + ")");
    const KeyState* state = model_.find(k);
    const std::optional<double> top = ReferenceModel::highest(state);
    const bool wrong_kind = state != nullptr && state->kind == Kind::Plain;
    const bool restart = !top || sc - *top > drift;
    std::string holder;  // within the drift: the last member at the top, in byte order
    if (!wrong_kind && !restart) holder = ReferenceModel::ordered(*state, false).back().name;
    const int32_t want = wrong_kind ? KV_WRONG_REPLY : restart ? insertion_status(state, {m}) : KV_SUCCESS;

    char junk[8] = "junk";
    char* kept = junk;
    CallTime at;
    const int32_t got =
        timed(at, [&] { return kv_zadddis(client_, k.data(), k.size(), sc, m.data(), m.size(), drift, &kept, t); });
    if (got != want) {
        if (kept != junk && kept != nullptr) mm_.get()->release(kept);
        fail("status " + std::to_string(got) + ", expected " + std::to_string(want) +
             (restart ? " (beyond the drift: the set starts again)" : " (within the drift, " + quoted(holder) +
                                                                          " moves)"));
    }
    if (wrong_kind || restart) {
        const bool none = kept == nullptr;
        if (kept != junk && kept != nullptr) mm_.get()->release(kept);
        expect(none, "a name came back where none is due");
    } else {
        expect(kept != nullptr && kept != junk, "no name came back; expected " + quoted(holder));
        // The name is handed out with a zero byte after it, zero bytes inside it included.
        const bool same = std::memcmp(kept, holder.data(), holder.size()) == 0 && kept[holder.size()] == '\0';
        const std::string got_name(kept, std::strlen(kept));
        mm_.get()->release(kept);
        expect(same, "the name " + quoted(got_name) + " came back; expected " + quoted(holder));
    }
    if (wrong_kind) return;
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Sorted, existed);
    if (restart) {
        written.members.clear();  // the key keeps its expiry; the rule below decides
        written.members[m] = Member{sc, std::nullopt};
    } else {
        written.members[holder] = Member{sc, std::nullopt};
    }
    ReferenceModel::apply_ttl(written, existed, t, at);
}

void ModelRun::zincrby() {
    const std::string k = key(), m = member(k);
    const double increment = score();
    const int32_t t = ttl();
    begin("kv_zincrby(" + quoted(k) + ", " + quoted(m) + ", " + score_text(increment) + ", " + ttl_text(t) + ")");
    const KeyState* state = model_.find(k);
    double sum = increment;
    int32_t want = KV_SUCCESS;
    if (state != nullptr && state->kind == Kind::Plain) {
        want = KV_WRONG_REPLY;
    } else if (state != nullptr && state->members.count(m) != 0) {
        sum = state->members.at(m).score + increment;
        if (std::isnan(sum)) want = KV_INVALID_PARAMETER;  // inf + -inf, left as it was
    }
    double new_score = 42;
    CallTime at;
    const int32_t got = timed(at, [&] {
        return kv_zincrby(client_, k.data(), k.size(), m.data(), m.size(), increment, &new_score, t);
    });
    expect_status(got, want);
    if (want != KV_SUCCESS) {
        expect(new_score == 0, "the new score was left at " + score_text(new_score) + " on a failure");
        return;
    }
    expect(new_score == sum, "new score " + score_text(new_score) + ", expected " + score_text(sum));
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Sorted, existed);
    written.members[m].score = sum;  // the value stays
    ReferenceModel::apply_ttl(written, existed, t, at);
}

void ModelRun::sadd() {
    const std::string k = key();
    const KeyState* state = model_.find(k);
    std::string m = pick(std::vector<std::string>{"a", "", std::string("\0b", 2), "{x}", "%"});
    if (state != nullptr && state->kind == Kind::Plain && chance(0.4)) m = *state->plain.begin();
    const int32_t t = ttl();
    begin("kv_sadd(" + quoted(k) + ", " + quoted(m) + ", " + ttl_text(t) + ")");
    int32_t want = KV_SUCCESS;
    if (state != nullptr && state->kind == Kind::Sorted) want = KV_WRONG_REPLY;
    if (state != nullptr && state->kind == Kind::Plain && state->plain.count(m) != 0) want = KV_ALREADY_EXISTS;
    CallTime at;
    const int32_t got = timed(at, [&] { return kv_sadd(client_, k.data(), k.size(), m.data(), m.size(), t); });
    expect_status(got, want);
    if (want == KV_WRONG_REPLY) return;
    bool existed = false;
    KeyState& written = model_.open(k, Kind::Plain, existed);
    written.plain.insert(m);
    ReferenceModel::apply_ttl(written, existed, t, at);
}

}  // namespace kelvane_model
