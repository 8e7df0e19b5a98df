// test_library_model.cpp -- seeded random operations over every data operation of kelvane.h, on a private server,
// checked against a reference model kept here: each step predicts the status and every out-parameter (cleared
// ones on failures included) from the model, makes the call, compares the two as text, applies a write that
// landed to the model, and checks that every buffer handed out came back to the memory manager. Every few hundred
// steps the server's own layout is checked too. By default seeds 1, 2 and 3 with 2500 operations each;
// KELVANE_MODEL_OPS=N asks for N operations per seed, KELVANE_MODEL_SEED=S for the one seed S. A failure names the
// seed and the operation, so setting both reproduces it. The same runs, several at once on one client from threads
// of their own, each on keys of its own, show that sharing a client changes no result (label `threads`).
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <type_traits>

#include "model/model_support.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

using namespace kelvane_model;
using namespace std::string_literals;
using Text = std::optional<std::string>;

// Few keys, so that operations meet each other's keys, kinds clash and sets empty out. Braces, '%', zero bytes
// and the empty key exercise how keys are named on the server.
const std::vector<std::string> kKeys = {
    "a", "b", "", "\0"s, "a\0b"s, "{", "}", "%", "%7B", "kv{a}", "{a}:v", std::string(300, 'k')};
// Names that tie on score, sort by unsigned bytes, hold zero bytes, or that kv_zaddmaxinc also makes.
const std::vector<std::string> kMembers = {"", "a", "b", "A", "ab", "\0"s, "a\0"s, "a\0b"s, "\xff", "\x7f", "{m}",
                                           "%7D", "0", "1", "2", "3", "10", "-1", "0.5", "1.5", std::string(1000, 'm')};
const std::vector<std::string> kValues = {"", "v", "w", "\0"s, "a\0b"s, "{%}", "\xff\xfe", std::string(3000, 'v')};
const std::vector<std::string> kSuffixes = {"", "/", "\0"s, "{s}", "%\0%"s};
const std::vector<double> kOddScores = {-INFINITY, INFINITY, -DBL_MAX, DBL_MAX, 5e-324, -5e-324, DBL_MIN, 1e-300,
                                        1e300, -1e300, 0.1, 1.0 / 3, 1e17, 2.5, -2.5, 123456789.123456789};

struct Member {
    double score = 0;
    Text value;
};
// A plain set (kv_sadd) keeps its members in the same map, without scores or values.
struct Key {
    bool plain = false;
    std::map<std::string, Member> members;
    std::optional<std::pair<int64_t, int64_t>> expiry;  // earliest and latest, ms on the wall clock
};
using Entry = std::pair<std::string, Member>;

// Results as text, so that one comparison serves every operation: counts in decimal, scores exact (0 for -0),
// byte strings quoted.
template <class T>
std::enable_if_t<std::is_integral_v<T>, std::string> item(T v) { return std::to_string(v); }
std::string item(double v) { return score_text(v == 0 ? 0 : v); }
std::string item(const Text& v) { return quote(v); }
template <class... A>
std::string out(const A&... a) {
    std::string s = "status";
    ((s += " " + item(a)), ...);
    return s;
}
bool landed(int32_t status) { return status == KV_SUCCESS || status == KV_ALREADY_EXISTS; }

class ModelRun {
public:
    // shared: a client that other runs use at the same time from threads of their own, each on its own keys (its
    // names with prefix in front); it is never destroyed here, and buffers are counted only by its owner.
    ModelRun(int port, uint64_t seed, kv_client* shared = nullptr, const std::string& prefix = "")
        : port_(port), seed_(seed), rng_(seed), shared_(shared) {
        if (mm_.get() == nullptr) throw std::runtime_error("kv_mm_create failed");
        for (const std::string& k : kKeys) keyspace_.push_back(prefix + k);
        if (shared_ != nullptr) client_ = shared_;
        else connect();
    }
    ~ModelRun() {
        if (client_ != nullptr && shared_ == nullptr) kv_client_destroy(client_);
    }

    void step() {
        static const std::vector<std::pair<int, void (ModelRun::*)()>> ops = {
            {20, &ModelRun::add},  {3, &ModelRun::zaddvalmax}, {3, &ModelRun::zaddmaxinc}, {4, &ModelRun::zadddis},
            {4, &ModelRun::zincrby}, {3, &ModelRun::sadd},     {6, &ModelRun::zscore},     {5, &ModelRun::zrank},
            {5, &ModelRun::count}, {18, &ModelRun::range},     {13, &ModelRun::remove},    {2, &ModelRun::del},
            {4, &ModelRun::get_ttl}, {2, &ModelRun::refused},  {1, &ModelRun::reconnect}};
        std::vector<int> weights;
        for (const auto& op : ops) weights.push_back(op.first);
        ++step_;
        const auto op = ops[std::discrete_distribution<size_t>(weights.begin(), weights.end())(rng_)].second;
        if (shared_ != nullptr && op == &ModelRun::reconnect) return;  // the client is not this run's to destroy
        (this->*op)();
        if (mm_.live() != 0) fail(std::to_string(mm_.live()) + " buffers the library counts as handed out remain");
    }

    // Most of a second without a call, then every key's time-to-live: what is left of an expiry is then rarely a
    // whole number of seconds.
    void let_time_pass() {
        const auto pause = std::chrono::milliseconds(550 + below(400));
        begin("(" + std::to_string(pause.count()) + " ms without a call)");
        std::this_thread::sleep_for(pause);
        for (const std::string& k : keyspace_) read_ttl(k);
    }

    void check_server() {
        begin("(the server's layout)");
        for (const auto& f : check_layout(port_)) fail("the server breaks the layout rules: " + f);
    }

    void finish() {
        if (shared_ != nullptr) return;
        begin("(kv_client_destroy and kv_mm_destroy)");
        kv_client_destroy(client_);
        client_ = nullptr;
        if (const long left = mm_.destroy()) fail(std::to_string(left) + " allocator blocks out after kv_mm_destroy");
    }

private:
    // ---- inputs ----
    uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    template <class T>
    T pick(const std::vector<T>& from) { return from[below(from.size())]; }
    const Key* find(const std::string& k) const {
        auto it = keys_.find(k);
        return it == keys_.end() ? nullptr : &it->second;
    }
    const Key* sorted(const std::string& k) const {
        const Key* s = find(k);
        return s != nullptr && !s->plain ? s : nullptr;
    }
    std::string key() { return pick(keyspace_); }
    // Often a member the key holds, so that updates, ranks and removals hit.
    std::string member(const std::string& k) {
        const Key* s = sorted(k);
        if (s == nullptr || !chance(0.45)) return pick(kMembers);
        return std::next(s->members.begin(), static_cast<long>(below(s->members.size())))->first;
    }
    double score() {
        const uint64_t kind = below(20);
        if (kind < 12) return static_cast<double>(static_cast<int>(below(11)) - 3);  // ties, often
        if (kind < 17) return pick(kOddScores);
        return std::uniform_real_distribution<double>(-1000, 1000)(rng_);
    }
    // A score bound: often a score the key holds, so that bounds are met exactly.
    double bound(const std::string& k) {
        const Key* s = sorted(k);
        if (s == nullptr || s->members.empty() || !chance(0.5)) return score();
        return std::next(s->members.begin(), static_cast<long>(below(s->members.size())))->second.score;
    }
    int32_t rank() {
        if (chance(0.9)) return static_cast<int32_t>(below(15)) - 7;
        return pick(std::vector<int32_t>{INT32_MIN, INT32_MAX, -1000, 1000, INT32_MIN + 1});
    }
    // Long enough never to run out during a run: the model does not expire keys. Now and then a negative one,
    // which every write refuses before anything reaches the server (see refused_ttl).
    int32_t ttl() {
        const int32_t t = static_cast<int32_t>(3600 + below(200000));
        const uint64_t kind = below(21);
        if (kind == 20) return pick(std::vector<int32_t>{-1, -3600, INT32_MIN, COMMIT_TTL(-1)});
        return kind < 14 ? 0 : kind < 16 ? t : kind < 19 ? COMMIT_TTL(t) : COMMIT_TTL(0);
    }
    static int32_t refused_ttl(int32_t t, int32_t status) { return t < 0 ? KV_INVALID_PARAMETER : status; }

    // ---- the model ----
    // Members in ascending score order, equal scores by the unsigned bytes of their names; reverse turns it round.
    static std::vector<Entry> ordered(const Key& s, bool reverse) {
        std::vector<Entry> list(s.members.begin(), s.members.end());
        std::stable_sort(list.begin(), list.end(),
                         [](const Entry& a, const Entry& b) { return a.second.score < b.second.score; });
        if (reverse) std::reverse(list.begin(), list.end());
        return list;
    }
    // Ranks start..stop, negative ones from the end, clamped as the store clamps them.
    static std::vector<Entry> rank_slice(const std::vector<Entry>& list, int64_t start, int64_t stop) {
        const int64_t n = static_cast<int64_t>(list.size());
        start = std::max<int64_t>(start < 0 ? start + n : start, 0);
        stop = std::min(stop < 0 ? stop + n : stop, n - 1);
        if (start > stop) return {};
        return std::vector<Entry>(list.begin() + start, list.begin() + stop + 1);
    }
    static std::optional<double> highest(const Key* s) {
        if (s == nullptr || s->plain || s->members.empty()) return std::nullopt;
        return ordered(*s, false).back().second.score;
    }
    // The status of an insertion: the other kind is refused, a name that was there makes it KV_ALREADY_EXISTS.
    static int32_t insertion(const Key* s, const std::vector<std::string>& names, bool plain = false) {
        if (s == nullptr) return KV_SUCCESS;
        if (s->plain != plain) return KV_WRONG_REPLY;
        for (const auto& n : names) {
            if (s->members.count(n) != 0) return KV_ALREADY_EXISTS;
        }
        return KV_SUCCESS;
    }
    // The key a write landed on, created when absent, with the time-to-live rule applied: a write that creates
    // the key gives it t (0: none); on an existing key only COMMIT_TTL(t) replaces the expiry.
    Key& land(const std::string& k, int32_t t, bool plain = false) {
        auto [it, created] = keys_.try_emplace(k);
        if (created) it->second.plain = plain;
        const int64_t ms = (t & ~KV_TTL_COMMIT_BIT) * int64_t{1000};
        if (created || (t & KV_TTL_COMMIT_BIT) != 0) {
            it->second.expiry.reset();
            if (ms != 0) it->second.expiry = std::pair(before_ms_ + ms, after_ms_ + ms);
        }
        return it->second;
    }

    // ---- checking ----
    void connect() {
        client_ = kv_client_create(1, 2, mm_.get(), 2);
        if (client_ == nullptr) fail("kv_client_create failed");
        const int32_t status = kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(port_), nullptr);
        if (status != KV_SUCCESS) fail("kv_server_add answered " + std::to_string(status));
    }
    void begin(std::string what) {
        history_.push_back("op " + std::to_string(step_) + ": " + std::move(what));
        if (history_.size() > 6) history_.pop_front();
    }
    [[noreturn]] void fail(const std::string& why) const {
        std::string text = "seed " + std::to_string(seed_) + ", op " + std::to_string(step_) + ": " + why +
                           "\nreproduce with KELVANE_MODEL_SEED=" + std::to_string(seed_) +
                           " and the same KELVANE_MODEL_OPS; the last operations:";
        for (const auto& op : history_) text += "\n  " + op;
        throw std::runtime_error(text);
    }
    void check(const std::string& got, const std::string& want) const {
        if (got != want) fail("got  " + got + "\nwant " + want);
    }
    // Runs a call and notes when, on the wall clock the server keeps expiries by, it ran.
    template <class Call>
    int32_t timed(const Call& call) {
        const auto now_ms = [] {
            using namespace std::chrono;
            return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
        };
        before_ms_ = now_ms();
        const int32_t status = call();
        after_ms_ = now_ms() + 1;
        return status;
    }
    Text take(char* value, size_t len) { return kelvane_model::take(mm_.get(), value, len); }

    // ---- writes ----
    // kv_zadd, kv_zaddval, kv_zmadd and kv_zmaddval: an existing member keeps its value unless one is given.
    void add() {
        const std::string k = key();
        const bool batch = chance(0.4), with_values = chance(0.5);
        const size_t n = batch ? 1 + below(4) : 1;
        std::vector<std::string> names(n), values(n);
        std::vector<double> scores(n);
        std::vector<const char*> np(n), vp(n);
        std::vector<size_t> nl(n), vl(n);
        std::string what = std::string(batch ? "kv_zmadd" : "kv_zadd") + (with_values ? "val(" : "(") + quote(k);
        for (size_t i = 0; i < n; ++i) {
            // Now and then a name given twice in one batch: the last one counts.
            names[i] = i > 0 && chance(0.25) ? names[below(i)] : member(k);
            scores[i] = score();
            values[i] = pick(kValues);
            np[i] = names[i].data();
            nl[i] = names[i].size();
            vp[i] = values[i].data();
            vl[i] = values[i].size();
            what += ", " + quote(names[i]) + "@" + item(scores[i]) + (with_values ? "=" + quote(values[i]) : "");
        }
        const int32_t t = ttl(), want = refused_ttl(t, insertion(find(k), names));
        begin(what + ", ttl " + std::to_string(t) + ")");
        const auto c = static_cast<uint32_t>(n);
        const char* kp = k.data();
        const int32_t got = timed([&] {
            if (!batch && !with_values) return kv_zadd(client_, kp, k.size(), scores[0], np[0], nl[0], t);
            if (!batch) return kv_zaddval(client_, kp, k.size(), scores[0], np[0], nl[0], vp[0], vl[0], t);
            if (!with_values) return kv_zmadd(client_, kp, k.size(), scores.data(), np.data(), c, nl.data(), t);
            return kv_zmaddval(client_, kp, k.size(), scores.data(), np.data(), c, nl.data(), vp.data(), vl.data(), t);
        });
        check(out(got), out(want));
        if (!landed(want)) return;
        Key& s = land(k, t);
        for (size_t i = 0; i < n; ++i) {
            s.members[names[i]].score = scores[i];
            if (with_values) s.members[names[i]].value = values[i];
        }
    }

    void zaddvalmax() {
        const std::string k = key(), m = member(k), v = pick(kValues);
        const double increment = score(), sc = highest(find(k)).value_or(0) + increment;
        const int32_t t = ttl();
        begin("kv_zaddvalmax(" + quote(k) + ", " + quote(m) + ", " + quote(v) + ", " + item(increment) + ", ttl " +
              std::to_string(t) + ")");
        int32_t want = insertion(find(k), {m});
        // Infinities of both signs add up to no number, which no set can hold.
        if (want != KV_WRONG_REPLY && std::isnan(sc)) want = KV_INVALID_PARAMETER;
        want = refused_ttl(t, want);
        const int32_t got = timed([&] {
            return kv_zaddvalmax(client_, k.data(), k.size(), m.data(), m.size(), v.data(), v.size(), increment, t);
        });
        check(out(got), out(want));
        if (landed(want)) land(k, t).members[m] = Member{sc, v};
    }

    // The new member is named by its score: whole numbers as integers in full, others in the shortest text that
    // reads back as the same double. An existing member of that name loses its value.
    void zaddmaxinc() {
        const std::string k = key();
        const std::optional<double> top = highest(find(k));
        if (top && std::isinf(*top)) return add();  // the decimal name of an infinite score is not defined
        const int32_t increment = chance(0.9) ? static_cast<int32_t>(below(9)) - 3
                                              : pick(std::vector<int32_t>{INT32_MAX, INT32_MIN, 1000});
        const int32_t t = ttl();
        const double sc = top.value_or(0) + increment;
        char whole[512];  // DBL_MAX has 309 digits
        std::snprintf(whole, sizeof whole, "%.0f", sc);
        const std::string name = sc == std::floor(sc) ? (sc == 0 ? "0" : whole) : score_text(sc);
        begin("kv_zaddmaxinc(" + quote(k) + ", " + std::to_string(increment) + ", ttl " + std::to_string(t) +
              "), making " + quote(name));
        const int32_t want = refused_ttl(t, insertion(find(k), {name}));
        check(out(timed([&] { return kv_zaddmaxinc(client_, k.data(), k.size(), increment, t); })), out(want));
        if (landed(want)) land(k, t).members[name] = Member{sc, std::nullopt};
    }

    // Beyond the drift from the highest score (or on an empty set) the set starts again from member alone; within
    // it the last member at the top, in byte order, takes the score, loses its value and is named back.
    void zadddis() {
        const std::string k = key(), m = member(k);
        double sc = score();
        while (!std::isfinite(sc)) sc = score();  // score - max is then never NaN
        const double drift = pick(std::vector<double>{0, 1, 2.5, 5, 100, -1});
        const int32_t t = ttl();
        begin("kv_zadddis(" + quote(k) + ", " + item(sc) + ", " + quote(m) + ", drift " + item(drift) + ", ttl " +
              std::to_string(t) + ")");
        const Key* s = find(k);
        const std::optional<double> top = highest(s);
        const bool restart = !top || sc - *top > drift;
        const int32_t want = refused_ttl(t, restart ? insertion(s, {m}) : KV_SUCCESS);
        const Text holder = landed(want) && !restart ? Text(ordered(*s, false).back().first) : std::nullopt;
        char* kept = junk;
        const int32_t got =
            timed([&] { return kv_zadddis(client_, k.data(), k.size(), sc, m.data(), m.size(), drift, &kept, t); });
        // The name has a zero byte after it; it may hold zero bytes itself.
        const size_t len = kept == junk || kept == nullptr ? 0 : holder ? holder->size() : std::strlen(kept);
        check(out(got, take(kept, len)), out(want, holder));
        if (!landed(want)) return;
        Key& written = land(k, t);
        if (restart) written.members.clear();  // the key keeps its expiry: the rule above decides
        written.members[holder.value_or(m)] = Member{sc, std::nullopt};
    }

    void zincrby() {
        const std::string k = key(), m = member(k);
        const double increment = score();
        const int32_t t = ttl();
        begin("kv_zincrby(" + quote(k) + ", " + quote(m) + ", " + item(increment) + ", ttl " + std::to_string(t) + ")");
        const Key* s = find(k);
        double sum = increment;
        int32_t want = key_status(k, KV_SUCCESS);
        if (want == KV_SUCCESS && s != nullptr && s->members.count(m) != 0) sum += s->members.at(m).score;
        if (std::isnan(sum)) want = KV_INVALID_PARAMETER;  // inf + -inf: the set stays as it was
        want = refused_ttl(t, want);
        double new_score = 42;
        const int32_t got = timed([&] {
            return kv_zincrby(client_, k.data(), k.size(), m.data(), m.size(), increment, &new_score, t);
        });
        check(out(got, new_score), out(want, want == KV_SUCCESS ? sum : 0.0));
        if (want == KV_SUCCESS) land(k, t).members[m].score = sum;  // the value stays
    }

    void sadd() {
        const std::string k = key();
        const Key* s = find(k);
        std::string m = pick(std::vector<std::string>{"a", "", "\0b"s, "{x}", "%"});
        if (s != nullptr && s->plain && chance(0.4)) m = s->members.begin()->first;
        const int32_t t = ttl(), want = refused_ttl(t, insertion(s, {m}, true));
        begin("kv_sadd(" + quote(k) + ", " + quote(m) + ", ttl " + std::to_string(t) + ")");
        check(out(timed([&] { return kv_sadd(client_, k.data(), k.size(), m.data(), m.size(), t); })), out(want));
        if (landed(want)) land(k, t, true).members[m];
    }

    // ---- reads ----
    // What an absent key or one of the other kind gives, or KV_SUCCESS.
    int32_t key_status(const std::string& k, int32_t absent = KV_NOTFOUND) const {
        const Key* s = find(k);
        return s == nullptr ? absent : s->plain ? KV_WRONG_REPLY : KV_SUCCESS;
    }
    int32_t member_status(const std::string& k, const std::string& m) const {
        const int32_t status = key_status(k);
        return status != KV_SUCCESS || find(k)->members.count(m) != 0 ? status : KV_NO_SET_KEY;
    }

    void zscore() {
        const std::string k = key(), m = member(k);
        begin("kv_zscore(" + quote(k) + ", " + quote(m) + ")");
        const int32_t want = member_status(k, m);
        const Member expected = want == KV_SUCCESS ? find(k)->members.at(m) : Member{};
        double sc = 42;
        char* value = junk;
        size_t len = 7;
        const int32_t got = kv_zscore(client_, k.data(), k.size(), m.data(), m.size(), &sc, &value, &len);
        check(out(got, sc, take(value, len)), out(want, expected.score, expected.value));
    }

    // A limit means nothing to a rank: refused, and no optional argument is read.
    void zrank() {
        const std::string k = key(), m = member(k);
        const bool refused = chance(0.15);
        const int32_t flags = (refused ? ZSET_WITH_LIMIT : 0) | (chance(0.5) ? ZSET_REVERSE : 0) |
                              (chance(0.5) ? ZSET_WITH_VALUES : 0);
        const bool with_value = (flags & ZSET_WITH_VALUES) && !refused;
        begin("kv_zrank(" + quote(k) + ", " + quote(m) + ", flags " + std::to_string(flags) + ")");
        const int32_t want = refused ? KV_INVALID_PARAMETER : member_status(k, m);
        uint32_t expected_rank = 0;
        Text expected_value;
        if (want == KV_SUCCESS) {
            const std::vector<Entry> order = ordered(*find(k), flags & ZSET_REVERSE);
            const auto at = std::find_if(order.begin(), order.end(), [&](const Entry& e) { return e.first == m; });
            expected_rank = static_cast<uint32_t>(at - order.begin());
            if (with_value) expected_value = at->second.value;
        }
        uint32_t rank = 99;
        char* value = junk;
        size_t len = 7;
        const char *kp = k.data(), *mp = m.data();
        const int32_t got = with_value ? kv_zrank(client_, kp, k.size(), mp, m.size(), &rank, flags, &value, &len)
                                       : kv_zrank(client_, kp, k.size(), mp, m.size(), &rank, flags);
        check(out(got, rank, with_value ? take(value, len) : Text()), out(want, expected_rank, expected_value));
    }

    // kv_zcard and kv_zcount: an absent key counts as empty.
    void count() {
        const std::string k = key();
        const bool card = chance(0.4);
        const double min = card ? -INFINITY : bound(k), max = card ? INFINITY : bound(k);
        begin(card ? "kv_zcard(" + quote(k) + ")"
                   : "kv_zcount(" + quote(k) + ", " + item(min) + ", " + item(max) + ")");
        uint32_t expected = 0;
        for (const auto& [name, e] : sorted(k) ? sorted(k)->members : std::map<std::string, Member>{}) {
            expected += min <= e.score && e.score <= max;
        }
        uint32_t n = 99;
        const int32_t got = card ? kv_zcard(client_, k.data(), k.size(), &n)
                                 : kv_zcount(client_, k.data(), k.size(), min, max, &n);
        check(out(got, n), out(key_status(k, KV_SUCCESS), expected));
    }

    // The four range reads with every flag combination, limits, negative ranks and suffixes; a third of them read
    // the whole key with scores and values.
    void range() {
        const std::string k = key();
        RangeQuery q;
        q.flags = ZSET_WITH_SCORES | ZSET_WITH_VALUES;
        bool refused = false;
        if (!chance(0.3)) {
            q.by_score = chance(0.5);
            if (chance(0.35)) q.suffix = pick(kSuffixes);
            q.flags = (chance(0.5) ? ZSET_WITH_SCORES : 0) | (chance(0.5) ? ZSET_WITH_VALUES : 0) |
                      (chance(0.4) ? ZSET_REVERSE : 0);
            q.start = rank();
            q.stop = rank();
            q.min = bound(k);
            q.max = bound(k);
            if (!q.by_score && chance(0.08)) {  // a rank range takes no limit
                q.flags |= ZSET_WITH_LIMIT;
                q.pass_optional = false;
                refused = true;
            } else if (q.by_score && chance(0.5)) {
                q.flags |= ZSET_WITH_LIMIT;
                q.offset = chance(0.05) ? -1 - static_cast<int32_t>(below(3)) : static_cast<int32_t>(below(6));
                q.count = chance(0.1) ? -7 : static_cast<int32_t>(below(6)) - 1;
                refused = q.offset < 0;
            }
            if (chance(0.04)) {  // unknown bits are refused before any optional argument is read
                q.flags |= pick(std::vector<int32_t>{16, 64, 0x100, 0x40000000});
                q.pass_optional = false;
                refused = true;
            }
        }
        begin(describe(k, q));
        RangeResult want;
        want.status = refused ? KV_INVALID_PARAMETER : key_status(k);
        if (want.status == KV_SUCCESS) {
            std::vector<Entry> list = ordered(*find(k), q.flags & ZSET_REVERSE);
            if (q.by_score) {
                list.erase(std::remove_if(list.begin(), list.end(), [&](const Entry& e) {
                    return !(q.min <= e.second.score && e.second.score <= q.max);
                }), list.end());
                if (q.flags & ZSET_WITH_LIMIT) {
                    const size_t from = std::min(list.size(), static_cast<size_t>(q.offset));
                    const size_t to = q.count < 0 ? list.size() : std::min(list.size(), from + q.count);
                    list = std::vector<Entry>(list.begin() + from, list.begin() + to);
                }
            } else {
                list = rank_slice(list, q.start, q.stop);
            }
            const std::string sfx = q.suffix.value_or("");
            for (const auto& [name, e] : list) {
                want.members.push_back(name + sfx);
                want.scores.push_back(e.score);
                want.values.push_back(e.value ? Text(*e.value + sfx) : std::nullopt);
            }
        }
        const RangeResult got = read_range(client_, mm_.get(), k, q);
        check(show(got, q.flags), show(want, q.flags));
        if (got.members.empty() || !chance(0.2)) return;
        const std::string& first = got.members.front();
        char* copy = voidtostring(first.data(), first.size(), mm_.get());
        check("voidtostring " + quote(take(copy ? copy : junk, first.size())), "voidtostring " + quote(first));
    }

    // ---- removals and keys ----
    // kv_zrem, kv_zmrem, kv_zremrangebyscore, kv_zremrangebyrank. A removal that takes a set's last member takes
    // the key with it, expiry included.
    void remove() {
        const std::string k = key();
        const Key* s = sorted(k);
        const std::vector<Entry> all = s ? ordered(*s, false) : std::vector<Entry>{};
        std::set<std::string> doomed;
        uint32_t removed = 99, want_removed = 0;
        int32_t got = -1;
        const uint64_t kind = below(4);
        if (kind < 2) {
            std::vector<std::string> names = {member(k)};
            for (size_t n = kind == 0 ? 1 : 1 + below(4); names.size() < n;) {
                names.push_back(chance(0.2) ? names[below(names.size())] : member(k));  // a name twice is removed once
            }
            std::vector<const char*> np;
            std::vector<size_t> nl;
            std::string what = kind == 0 ? "kv_zrem(" + quote(k) : "kv_zmrem(" + quote(k);
            for (const auto& n : names) {
                np.push_back(n.data());
                nl.push_back(n.size());
                what += ", " + quote(n);
                if (s && s->members.count(n)) doomed.insert(n);
            }
            begin(what + ")");
            const auto n = static_cast<uint32_t>(np.size());
            got = kind == 0 ? kv_zrem(client_, k.data(), k.size(), np[0], nl[0])
                            : kv_zmrem(client_, k.data(), k.size(), np.data(), n, nl.data(), &removed);
            want_removed = kind == 0 ? 99 : static_cast<uint32_t>(doomed.size());
        } else if (kind == 2) {
            const double min = bound(k), max = bound(k);
            begin("kv_zremrangebyscore(" + quote(k) + ", " + item(min) + ", " + item(max) + ")");
            for (const auto& [name, e] : all) {
                if (min <= e.score && e.score <= max) doomed.insert(name);
            }
            got = kv_zremrangebyscore(client_, k.data(), k.size(), min, max, &removed);
            want_removed = static_cast<uint32_t>(doomed.size());
        } else {
            const int32_t start = rank(), stop = rank();
            begin("kv_zremrangebyrank(" + quote(k) + ", " + std::to_string(start) + ", " + std::to_string(stop) + ")");
            for (const auto& [name, e] : rank_slice(all, start, stop)) doomed.insert(name);
            got = kv_zremrangebyrank(client_, k.data(), k.size(), start, stop, &removed);
            want_removed = static_cast<uint32_t>(doomed.size());
        }
        const int32_t want = key_status(k, KV_SUCCESS) == KV_WRONG_REPLY ? KV_WRONG_REPLY
                             : kind < 2 && doomed.empty()                  ? KV_NOTFOUND
                                                                           : KV_SUCCESS;
        check(out(got, removed), out(want, want_removed));
        for (const auto& name : doomed) keys_[k].members.erase(name);
        if (s != nullptr && s->members.empty()) keys_.erase(k);
    }

    void del() {
        const std::string k = key();
        begin("kv_del(" + quote(k) + ")");
        check(out(kv_del(client_, k.data(), k.size())), out(find(k) ? KV_SUCCESS : KV_NOTFOUND));
        keys_.erase(k);
    }

    void get_ttl() { read_ttl(key()); }

    // What is left lies between the two ends of the expiry, give or take the server's millisecond clock; whole
    // seconds round up, so a key that expires reads at least 1 and a second that has begun to run still counts.
    void read_ttl(const std::string& k) {
        begin("kv_get_ttl(" + quote(k) + ")");
        const Key* s = find(k);
        int32_t ttl = 77;
        const int32_t got = timed([&] { return kv_get_ttl(client_, k.data(), k.size(), &ttl); });
        int32_t low = 0, high = 0;
        if (s != nullptr && s->expiry) {
            const auto up = [](int64_t ms) { return static_cast<int32_t>(std::ceil(static_cast<double>(ms) / 1000)); };
            low = std::max(1, up(s->expiry->first - after_ms_ - 2));
            high = up(s->expiry->second - before_ms_ + 2);
        }
        const int32_t in_range = low <= ttl && ttl <= high ? low : ttl;
        check(out(got, in_range) + (in_range == low ? "" : " (expected " + std::to_string(low) + ".." +
                                                              std::to_string(high) + ")"),
              out(s ? KV_SUCCESS : KV_NOTFOUND, low));
    }

    // Arguments the library refuses with KV_INVALID_PARAMETER before anything reaches the server, on whatever
    // the key holds just then; the out-parameters the call takes come back cleared. The model does not change,
    // so later reads prove the refusals changed nothing.
    void refused() {
        const std::string k = key(), m = member(k), v = pick(kValues);
        const char *kp = k.data(), *mp = m.data(), *vp = v.data();
        const size_t kl = k.size(), ml = m.size(), vl = v.size(), one_len = 1;
        const double nan = std::nan(""), one = 1, nan_scores[] = {1, nan};
        const char* const x[] = {"x"};
        const char* const nan_names[] = {mp, "y"};
        const size_t nan_lens[] = {ml, 1};
        double sc = 42;
        uint32_t n = 99;
        int32_t t = 77;
        char* text = junk;
        size_t len = 7;
        RangeQuery nan_range;
        nan_range.by_score = true;
        nan_range.min = nan;
        nan_range.flags = ZSET_WITH_SCORES;
        kv_client* c = client_;
        // The status, then what the text out-parameter holds (taken only once the call is over).
        const auto kept = [&](int32_t status, bool with_score = false) {
            return with_score ? out(status, sc, take(text, len)) : out(status, take(text, 0));
        };
        const std::string bad = out(KV_INVALID_PARAMETER), bad_n = out(KV_INVALID_PARAMETER, 0),
                          bad_sc = out(KV_INVALID_PARAMETER, 0.0), bad_text = out(KV_INVALID_PARAMETER, Text());
        const std::vector<std::tuple<std::string, std::function<std::string()>, std::string>> calls = {
            {"kv_zmadd, one NaN score in the batch",
             [&] { return out(kv_zmadd(c, kp, kl, nan_scores, nan_names, 2, nan_lens, 0)); }, bad},
            {"kv_zaddval, NaN score", [&] { return out(kv_zaddval(c, kp, kl, nan, mp, ml, vp, vl, 0)); }, bad},
            {"kv_zincrby by NaN", [&] { return out(kv_zincrby(c, kp, kl, mp, ml, nan, &sc, 0), sc); }, bad_sc},
            {"kv_zadddis, NaN drift",
             [&] { return kept(kv_zadddis(c, kp, kl, 1, mp, ml, nan, &text, 0)); }, bad_text},
            {"kv_zcount from NaN", [&] { return out(kv_zcount(c, kp, kl, nan, 1, &n), n); }, bad_n},
            {"kv_zremrangebyscore to NaN", [&] { return out(kv_zremrangebyscore(c, kp, kl, 0, nan, &n), n); }, bad_n},
            {describe(k, nan_range), [&] { return show(read_range(c, mm_.get(), k, nan_range), ZSET_WITH_SCORES); },
             show(RangeResult{KV_INVALID_PARAMETER, {}, {}, {}, {}}, ZSET_WITH_SCORES)},
            {"kv_zmadd of 0 members", [&] { return out(kv_zmadd(c, kp, kl, &one, x, 0, &one_len, 0)); }, bad},
            {"kv_zmrem of 0 members", [&] { return out(kv_zmrem(c, kp, kl, x, 0, &one_len, &n), n); }, bad_n},
            {"kv_zscore of a null member of length 2",
             [&] { return kept(kv_zscore(c, kp, kl, nullptr, 2, &sc, &text, &len), true); },
             out(KV_INVALID_PARAMETER, 0.0, Text())},
            {"kv_zaddval of a null value of length 2",
             [&] { return out(kv_zaddval(c, kp, kl, 1, mp, ml, nullptr, 2, 0)); }, bad},
            {"kv_get_ttl of a null key of length 3", [&] { return out(kv_get_ttl(c, nullptr, 3, &t), t); }, bad_n},
        };
        const auto& [what, call, want] = calls[below(calls.size())];
        begin(what + " on " + quote(k));
        check(call(), want);
    }

    // A client made anew in the middle of a run, on the same memory manager.
    void reconnect() {
        begin("kv_client_destroy, then kv_client_create and kv_server_add");
        kv_client_destroy(client_);
        client_ = nullptr;
        connect();
    }

    int port_;
    uint64_t seed_;
    std::mt19937_64 rng_;
    kv_client* shared_;
    std::vector<std::string> keyspace_;
    std::map<std::string, Key> keys_;
    CountingManager mm_;
    kv_client* client_ = nullptr;
    uint64_t step_ = 0;
    int64_t before_ms_ = 0, after_ms_ = 0;
    std::deque<std::string> history_;
};

std::string env(const char* name) {
    const char* text = std::getenv(name);
    return text != nullptr ? text : "";
}

TEST(ReferenceModel, RandomOperationsAgreeWithTheModel) {
    const uint64_t ops = env("KELVANE_MODEL_OPS").empty() ? 2500 : std::stoull(env("KELVANE_MODEL_OPS"));
    // Pauses of most of a second let expiries run down between calls; a long run pauses at most 16 times.
    const uint64_t pause_every = std::max<uint64_t>(1250, ops / 16);
    std::vector<uint64_t> seeds = {1, 2, 3};
    if (!env("KELVANE_MODEL_SEED").empty()) seeds = {std::stoull(env("KELVANE_MODEL_SEED"))};
    for (const uint64_t seed : seeds) {
        std::cout << "[   model  ] seed " << seed << ", " << ops << " operations" << std::endl;
        RedisServer server;
        try {
            ModelRun run(server.port(), seed);
            for (uint64_t i = 1; i <= ops; ++i) {
                run.step();
                if (i % 250 == 0) run.check_server();
                if (i % pause_every == 0) run.let_time_pass();
            }
            run.check_server();
            run.finish();
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
    }
}

// Six runs at once on one client, each from a thread of its own on keys of its own: every result of every run is
// what the model of its keys says, the server's layout holds, and every buffer comes back.
TEST(ThreadsModel, RunsOnOneSharedClientEachAgreeWithTheModelOfTheirOwnKeys) {
    const uint64_t ops = env("KELVANE_MODEL_OPS").empty() ? 1500 : std::stoull(env("KELVANE_MODEL_OPS"));
    constexpr int kThreads = 6;
    RedisServer server;
    CountingManager mm;
    kv_client* client = kv_client_create(1, 2, mm.get(), 2);
    ASSERT_NE(client, nullptr);
    ASSERT_EQ(kv_server_add(client, "127.0.0.1", static_cast<uint32_t>(server.port()), nullptr), KV_SUCCESS);
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            try {
                ModelRun run(server.port(), 101 + static_cast<uint64_t>(t), client, "t" + std::to_string(t) + "/");
                for (uint64_t i = 1; i <= ops; ++i) run.step();
            } catch (const std::exception& e) {
                failures[static_cast<size_t>(t)] = e.what();
            }
        });
    }
    for (auto& t : threads) t.join();
    for (const auto& f : failures) EXPECT_TRUE(f.empty()) << f;
    for (const auto& f : check_layout(server.port())) ADD_FAILURE() << "the server breaks the layout rules: " << f;
    kv_client_destroy(client);
    EXPECT_EQ(mm.live(), 0u) << "buffers the library handed out and nobody got back";
    EXPECT_EQ(mm.destroy(), 0) << "allocator blocks out after kv_mm_destroy";
}

}  // namespace
}  // namespace kelvane_test
