// model_run.cpp -- the run itself: the inputs it draws from, how it checks,
// and the mix of operations.
#include "model_run.h"

#include <cfloat>
#include <cmath>
#include <sstream>

#include "byte_text.h"
#include "layout_check.h"

namespace kelvane_model {
namespace {

using namespace std::string_literals;

// Few keys, so that operations meet each other's keys, kinds clash and sets
// empty out. Braces, '%', zero bytes and the empty key exercise how keys are
// named on the server.
const std::vector<std::string> kKeys = {
    "a", "b", "", "\0"s, "a\0b"s, "{", "}", "%", "%7B", "kv{a}", "{a}:v", std::string(300, 'k')};
// Names that tie on score, sort by unsigned bytes, hold zero bytes, or that
// kv_zaddmaxinc also makes ("0", "1", "2", "3", "10", "-1", "0.5", "1.5").
const std::vector<std::string> kMembers = {
    "", "a", "b", "A", "ab", "\0"s, "a\0"s, "a\0b"s, "\xff", "\x7f", "{m}", "%7D",
    "0", "1", "2", "3", "10", "-1", "0.5", "1.5", std::string(1000, 'm')};
const std::vector<std::string> kValues = {"", "v", "w", "\0"s, "a\0b"s, "{%}", "\xff\xfe", std::string(3000, 'v')};
const std::vector<std::string> kSuffixes = {"", "/", "\0"s, "{s}", "%\0%"s};
const std::vector<double> kOddScores = {-INFINITY, INFINITY, -DBL_MAX, DBL_MAX, 5e-324, -5e-324, DBL_MIN,
                                        1e-300, 1e300, -1e300, 0.1, 1.0 / 3, 1e17, 2.5, -2.5,
                                        123456789.123456789};

}  // namespace

std::string ttl_text(int32_t ttl) {
    if (ttl >= 0 && (ttl & KV_TTL_COMMIT_BIT) != 0) {
        return "COMMIT_TTL(" + std::to_string(ttl & ~KV_TTL_COMMIT_BIT) + ")";
    }
    return std::to_string(ttl);
}

ModelRun::ModelRun(int port, uint64_t seed) : port_(port), seed_(seed), rng_(seed), keys_(kKeys) {
    if (mm_.get() == nullptr) throw std::runtime_error("kv_mm_create failed");
    connect();
    auto add = [&](int weight, std::function<void()> op) {
        operations_.emplace_back(weight, std::move(op));
        total_weight_ += weight;
    };
    add(6, [this] { zadd(false); });
    add(6, [this] { zadd(true); });
    add(4, [this] { zmadd(false); });
    add(4, [this] { zmadd(true); });
    add(3, [this] { zaddvalmax(); });
    add(3, [this] { zaddmaxinc(); });
    add(4, [this] { zadddis(); });
    add(4, [this] { zincrby(); });
    add(3, [this] { sadd(); });
    add(6, [this] { zscore(); });
    add(5, [this] { zrank(); });
    add(2, [this] { zcard(); });
    add(3, [this] { zcount(); });
    add(12, [this] { range(); });
    add(6, [this] { whole_key(); });
    add(4, [this] { zrem(); });
    add(3, [this] { zmrem(); });
    add(3, [this] { zremrangebyscore(); });
    add(3, [this] { zremrangebyrank(); });
    add(2, [this] { del(); });
    add(4, [this] { get_ttl(key()); });
    add(3, [this] { refused(); });
    add(1, [this] { reconnect(); });
}

ModelRun::~ModelRun() {
    if (client_ != nullptr) kv_client_destroy(client_);
}

void ModelRun::connect() {
    client_ = kv_client_create(1, 2, mm_.get(), 2);
    if (client_ == nullptr) throw Mismatch("kv_client_create failed");
    const int32_t status = kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(port_), nullptr);
    if (status != KV_SUCCESS) fail("kv_server_add answered " + std::to_string(status));
}

void ModelRun::step() {
    ++step_;
    uint64_t roll = below(static_cast<uint64_t>(total_weight_));
    for (const auto& [weight, op] : operations_) {
        if (roll < static_cast<uint64_t>(weight)) {
            op();
            break;
        }
        roll -= static_cast<uint64_t>(weight);
    }
    expect(mm_.live() == 0, std::to_string(mm_.live()) + " buffers handed out and not released by the test: "
                                "the library counted more than it handed out");
}

void ModelRun::check_server() {
    begin("(the server's keys)");
    const LayoutReport report = check_layout(port_);
    if (!report.faults.empty()) {
        std::string all;
        for (const auto& f : report.faults) all += "\n  " + f;
        fail("the server breaks the layout rules:" + all);
    }
    expect(report.main_keys == model_.size(), "the server holds " + std::to_string(report.main_keys) +
                                                  " kelvane keys, the model " + std::to_string(model_.size()));
}

void ModelRun::finish() {
    begin("(kv_client_destroy and kv_mm_destroy)");
    kv_client_destroy(client_);
    client_ = nullptr;
    const long left = mm_.destroy();
    expect(left == 0, std::to_string(left) + " allocator blocks still out after kv_mm_destroy");
}

std::string ModelRun::recent_ops() const {
    std::string out;
    for (const auto& op : history_) out += "\n  " + op;
    return out;
}

// ---- inputs ----

std::string ModelRun::key() { return pick(keys_); }

std::string ModelRun::member(const std::string& key) {
    const KeyState* state = model_.find(key);
    if (state != nullptr && state->kind == Kind::Sorted && chance(0.45)) {
        auto it = state->members.begin();
        std::advance(it, static_cast<long>(below(state->members.size())));
        return it->first;
    }
    return pick(kMembers);
}

std::string ModelRun::value() { return pick(kValues); }

double ModelRun::score() {
    const uint64_t kind = below(20);
    if (kind < 12) return static_cast<double>(static_cast<int>(below(11)) - 3);  // ties, often
    if (kind < 17) return pick(kOddScores);
    return std::uniform_real_distribution<double>(-1000, 1000)(rng_);
}

double ModelRun::bound(const std::string& key) {
    const KeyState* state = model_.find(key);
    if (state != nullptr && state->kind == Kind::Sorted && !state->members.empty() && chance(0.5)) {
        auto it = state->members.begin();
        std::advance(it, static_cast<long>(below(state->members.size())));
        return it->second.score;
    }
    return score();
}

int32_t ModelRun::rank() {
    if (chance(0.9)) return static_cast<int32_t>(below(15)) - 7;
    return pick(std::vector<int32_t>{INT32_MIN, INT32_MAX, -1000, 1000, INT32_MIN + 1});
}

int32_t ModelRun::ttl() {
    // Long enough never to run out during a run: the model does not expire keys.
    const auto long_ttl = [&] { return static_cast<int32_t>(3600 + below(200000)); };
    const uint64_t kind = below(20);
    if (kind < 14) return 0;
    if (kind < 16) return long_ttl();
    if (kind < 19) return COMMIT_TTL(long_ttl());
    return COMMIT_TTL(0);
}

std::string ModelRun::suffix() { return pick(kSuffixes); }

// ---- checking ----

void ModelRun::begin(std::string description) {
    history_.push_back("op " + std::to_string(step_) + ": " + std::move(description));
    if (history_.size() > 8) history_.pop_front();
}

void ModelRun::fail(const std::string& why) const {
    std::ostringstream out;
    out << "seed " << seed_ << ", " << (history_.empty() ? "" : history_.back()) << "\n"
        << why << "\nreproduce with KELVANE_MODEL_SEED=" << seed_
        << " and the same KELVANE_MODEL_OPS (the failure is at op " << step_ << "); the operations before it:"
        << recent_ops();
    throw Mismatch(out.str());
}

void ModelRun::expect(bool ok, const std::string& why) const {
    if (!ok) fail(why);
}

void ModelRun::expect_status(int32_t got, int32_t want) const {
    if (got != want) fail("status " + std::to_string(got) + ", expected " + std::to_string(want));
}

std::optional<std::string> ModelRun::take_value(char* value, size_t len, const char* what) {
    if (value == nullptr) {
        expect(len == 0, std::string(what) + ": no value, but a length of " + std::to_string(len));
        return std::nullopt;
    }
    const bool terminated = value[len] == '\0';
    std::string bytes(value, len);
    mm_.get()->release(value);
    expect(terminated, std::string(what) + ": the value has no zero byte past its length");
    return bytes;
}

}  // namespace kelvane_model
