// test_library_differential.cpp -- the reads on native commands against the same reads as server functions, on the
// same data: seeded random writes make keys of every shape (sorted sets with and without values, small and past
// the size where range reads fetch values member by member, plain sets, keys of other kinds, values hashes that are
// not hashes or outlive their set, keys that expire), and between them random reads of every kind run through a
// client made with KELVANE_READS=functions, one made with KELVANE_READS=native and one on the default path, which
// mixes the two. Their statuses and every out-parameter, byte for byte and scores bit for bit, must be the same. Nothing writes while the two read, so
// both see the same state; a key made to expire has expired before either reads it. KELVANE_MODEL_SEED=S runs the
// one seed S; a failure names the seed and the read.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "model/model_support.h"
#include "redis_server.h"

namespace kelvane_test {
namespace {

using namespace kelvane_model;
using namespace std::string_literals;

const std::vector<std::string> kKeys = {"a", "b", "", "{k}", "%", "kv{a}", "big", "plain", "text", "lists"};
const std::vector<std::string> kMembers = {"", "a", "b", "ab", "\0"s, "a\0b"s, "\xff", "{m}", "1", "-1", "0.5",
                                           std::string(300, 'm')};
const std::vector<std::string> kValues = {"", "v", "\0"s, "a\0b"s, "{%}", std::string(2000, 'v')};
const std::vector<double> kScores = {0, -0.0, 1, 1, 2, 2.5, -3, 1.0 / 3, INFINITY, -INFINITY, 5e-324, 1e300};
// Past the size up to which a range read fetches a whole values hash in one round trip.
constexpr int kBigSet = 5000;

// Every byte, escaped; a score's bits (%a tells -0 from 0).
std::string bytes(const std::string& b) {
    std::string out = "\"";
    for (const unsigned char c : b) {
        char esc[8];
        std::snprintf(esc, sizeof esc, c >= 0x20 && c < 0x7f && c != '\\' ? "%c" : "\\x%02x", c);
        out += esc;
    }
    return out + "\"";
}
std::string bits(double d) {
    char text[40];
    std::snprintf(text, sizeof text, "%a", d);
    return text;
}
std::string taken(kv_mm* mm, char* value, size_t len) {
    const std::optional<std::string> v = take(mm, value, len);
    return v ? bytes(*v) + "/" + std::to_string(len) : "(null)/" + std::to_string(len);
}
std::string everything(const RangeResult& r) {
    std::string out = "status " + std::to_string(r.status) + " " + r.fault + " n=" + std::to_string(r.members.size());
    for (size_t k = 0; k < r.members.size(); ++k) {
        out += " " + bytes(r.members[k]);
        if (k < r.scores.size()) out += "@" + bits(r.scores[k]);
        if (k < r.values.size()) out += "=" + (r.values[k] ? bytes(*r.values[k]) : "(null)");
    }
    return out;
}

class Differential {
public:
    Differential(const RedisServer& server, uint64_t seed) : server_(server), seed_(seed), rng_(seed) {
        writer_ = client(nullptr);
        functions_ = client("functions");
        native_ = client("native");
        auto_ = client(nullptr);
    }
    ~Differential() {
        for (kv_client* c : {writer_, functions_, native_, auto_}) kv_client_destroy(c);
    }

    void step() {
        ++step_;
        if (chance(0.3)) return write();
        const std::string k = pick(kKeys);
        switch (below(5)) {
            case 0: return zscore(k);
            case 1: return zrank(k);
            case 2: return count(k);
            default: return range(k);
        }
    }

    // What the native client sent, from the server's own counts: reads that went through no function at all.
    void native_reads_use_no_function() {
        server_.command({"CONFIG", "RESETSTAT"});
        for (int i = 0; i < 50; ++i) {
            double score = 0;
            char* value = nullptr;
            size_t len = 0;
            kv_zscore(native_, "a", 1, "a", 1, &score, &value, &len);
            mm_.get()->release(value);
            read_range(native_, mm_.get(), pick(kKeys), RangeQuery{});
        }
        const std::string stats = server_.command({"INFO", "commandstats"});
        EXPECT_EQ(stats.find("cmdstat_fcall"), std::string::npos) << stats;
        EXPECT_NE(stats.find("cmdstat_exec"), std::string::npos) << stats;
    }

    size_t live() const { return mm_.live(); }

private:
    kv_client* client(const char* reads) {
        if (reads != nullptr) setenv("KELVANE_READS", reads, 1);
        kv_client* c = kv_client_create(1, 2, mm_.get(), 2);
        unsetenv("KELVANE_READS");
        if (c == nullptr || kv_server_add(c, "127.0.0.1", static_cast<uint32_t>(server_.port()), nullptr) != KV_SUCCESS) {
            throw std::runtime_error("no client");
        }
        return c;
    }
    uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
    template <class T>
    T pick(const std::vector<T>& from) { return from[below(from.size())]; }
    // The main key of kelvane key k (docs/data-layout.md).
    static std::string main(const std::string& k) {
        std::string e = k.empty() ? "%" : "";
        for (const char c : k) e += c == '%' ? "%25" : c == '{' ? "%7B" : c == '}' ? "%7D" : std::string(1, c);
        return "kv{" + e + "}";
    }

    void write() {
        const std::string k = pick(kKeys), m = pick(kMembers), v = pick(kValues);
        const double s = pick(kScores);
        switch (below(12)) {
            case 0: case 1: case 2:
                kv_zaddval(writer_, k.data(), k.size(), s, m.data(), m.size(), v.data(), v.size(), chance(0.2) ? 3600 : 0);
                break;
            case 3: case 4:
                kv_zadd(writer_, k.data(), k.size(), s, m.data(), m.size(), 0);
                break;
            case 5:
                kv_zrem(writer_, k.data(), k.size(), m.data(), m.size());
                break;
            case 6:
                if (chance(0.3)) kv_del(writer_, k.data(), k.size());
                break;
            case 7:  // a key of the other kind
                if (chance(0.3)) kv_sadd(writer_, k.data(), k.size(), m.data(), m.size(), 0);
                break;
            case 8:  // keys that are not kelvane's kinds: a string, and beside a set a values hash that is a list
                server_.command({"SET", main("text"), "x"});
                server_.command({"DEL", main("lists") + ":v"});
                kv_zadd(writer_, "lists", 5, s, m.data(), m.size(), 0);
                server_.command({"RPUSH", main("lists") + ":v", "x"});
                break;
            case 9: {  // a key, or its values hash alone, that expires before anyone reads it again
                const std::string target = chance(0.5) ? main(k) : main(k) + ":v";
                if (chance(0.3)) {
                    server_.command({"PEXPIRE", target, "1"});
                    std::this_thread::sleep_for(std::chrono::milliseconds(3));
                }
                break;
            }
            case 10:  // the big set: past the size of a values hash fetched whole, or down again
                if (chance(0.2)) fill_big();
                break;
            default: {
                double sum = 0;
                kv_zincrby(writer_, k.data(), k.size(), m.data(), m.size(), s, &sum, 0);
            }
        }
    }

    void fill_big() {
        std::vector<std::string> names(kBigSet), values(kBigSet);
        std::vector<double> scores(kBigSet);
        std::vector<const char*> np(kBigSet), vp(kBigSet);
        std::vector<size_t> nl(kBigSet), vl(kBigSet);
        for (int i = 0; i < kBigSet; ++i) {
            names[i] = "m" + std::to_string(i);
            values[i] = "v" + std::to_string(i * 7);
            scores[i] = static_cast<double>(below(50));
            np[i] = names[i].data(), nl[i] = names[i].size(), vp[i] = values[i].data(), vl[i] = values[i].size();
        }
        kv_zmaddval(writer_, "big", 3, scores.data(), np.data(), kBigSet, nl.data(), vp.data(), vl.data(), 0);
    }

    // The same read through each reading client; the results, as text, must be equal.
    template <class Read>
    void compare(const std::string& what, Read read) {
        const std::string by_function = read(functions_);
        for (const auto& [name, c] : {std::pair("native", native_), std::pair("auto", auto_)}) {
            const std::string other = read(c);
            if (other == by_function) continue;
            ADD_FAILURE() << "seed " << seed_ << ", step " << step_ << ": " << what << "\nfunctions: "
                          << by_function.substr(0, 2000) << "\n" << name << ": " << other.substr(0, 2000)
                          << "\nreproduce with KELVANE_MODEL_SEED=" << seed_;
            throw std::runtime_error("the read paths differ");
        }
    }

    void zscore(const std::string& k) {
        const std::string m = pick(kMembers);
        compare("kv_zscore(" + quote(k) + ", " + quote(m) + ")", [&](kv_client* c) {
            double score = 42;
            char* value = junk;
            size_t len = 7;
            const int32_t status = kv_zscore(c, k.data(), k.size(), m.data(), m.size(), &score, &value, &len);
            return std::to_string(status) + " " + bits(score) + " " + taken(mm_.get(), value, len);
        });
    }

    void zrank(const std::string& k) {
        const std::string m = chance(0.7) ? pick(kMembers) : "m" + std::to_string(below(kBigSet));
        const int32_t flags = (chance(0.5) ? ZSET_REVERSE : 0) | (chance(0.5) ? ZSET_WITH_VALUES : 0);
        compare("kv_zrank(" + quote(k) + ", " + quote(m) + ", flags " + std::to_string(flags) + ")", [&](kv_client* c) {
            uint32_t rank = 99;
            char* value = junk;
            size_t len = 7;
            const int32_t status = flags & ZSET_WITH_VALUES
                                       ? kv_zrank(c, k.data(), k.size(), m.data(), m.size(), &rank, flags, &value, &len)
                                       : kv_zrank(c, k.data(), k.size(), m.data(), m.size(), &rank, flags);
            return std::to_string(status) + " " + std::to_string(rank) +
                   (flags & ZSET_WITH_VALUES ? " " + taken(mm_.get(), value, len) : "");
        });
    }

    void count(const std::string& k) {
        const bool card = chance(0.3);
        const double min = pick(kScores), max = pick(kScores);
        compare(card ? "kv_zcard(" + quote(k) + ")" : "kv_zcount(" + quote(k) + ", " + bits(min) + ", " + bits(max) + ")",
                [&](kv_client* c) {
                    uint32_t n = 99;
                    const int32_t status = card ? kv_zcard(c, k.data(), k.size(), &n)
                                                : kv_zcount(c, k.data(), k.size(), min, max, &n);
                    return std::to_string(status) + " " + std::to_string(n);
                });
    }

    void range(const std::string& k) {
        RangeQuery q;
        q.by_score = chance(0.5);
        q.flags = (chance(0.6) ? ZSET_WITH_SCORES : 0) | (chance(0.7) ? ZSET_WITH_VALUES : 0) |
                  (chance(0.3) ? ZSET_REVERSE : 0);
        if (chance(0.3)) {  // the whole set
            q.start = 0, q.stop = -1, q.min = -INFINITY, q.max = INFINITY;
        } else {
            q.start = static_cast<int32_t>(below(12)) - 6;
            q.stop = static_cast<int32_t>(below(k == "big" ? kBigSet : 12)) - 3;
            q.min = pick(kScores), q.max = pick(kScores);
            if (k == "big" && chance(0.5)) q.min = 10, q.max = 20;
        }
        if (q.by_score && chance(0.4)) {
            q.flags |= ZSET_WITH_LIMIT;
            q.offset = static_cast<int32_t>(below(4));
            q.count = static_cast<int32_t>(below(6)) - 1;
        }
        if (chance(0.2)) q.suffix = pick(std::vector<std::string>{"", "/", "\0"s});
        compare(describe(k, q), [&](kv_client* c) { return everything(read_range(c, mm_.get(), k, q)); });
    }

    const RedisServer& server_;
    uint64_t seed_;
    std::mt19937_64 rng_;
    CountingManager mm_;
    kv_client *writer_ = nullptr, *functions_ = nullptr, *native_ = nullptr, *auto_ = nullptr;
    uint64_t step_ = 0;
};

TEST(Differential, NativeReadsAnswerWhatTheFunctionsAnswer) {
    std::vector<uint64_t> seeds = {1, 2, 3};
    if (const char* s = std::getenv("KELVANE_MODEL_SEED"); s != nullptr && *s != '\0') seeds = {std::stoull(s)};
    for (const uint64_t seed : seeds) {
        RedisServer server;
        try {
            Differential run(server, seed);
            for (int i = 0; i < 3000; ++i) run.step();
            run.native_reads_use_no_function();
            EXPECT_EQ(run.live(), 0u) << "buffers left unreleased";
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
    }
}

}  // namespace
}  // namespace kelvane_test
