// library_fixture.h -- what every library test shares: a private Redis server, a client registered with it, a
// memory manager that must have every buffer back when the test ends, and readers that take results apart.
#ifndef KELVANE_TESTS_LIBRARY_FIXTURE_H
#define KELVANE_TESTS_LIBRARY_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvane.h"
#include "redis_server.h"

namespace kelvane_test {

using Strings = std::vector<std::string>;
using Values = std::vector<std::optional<std::string>>;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr int32_t kAll = ZSET_WITH_SCORES | ZSET_WITH_VALUES;

// A range read taken apart into owned data.
struct Range {
    int32_t status = -1;
    Strings members;
    std::vector<double> scores;
    Values values;
};

// The out-parameters of a range read, starting as junk that the library must overwrite whatever the status.
struct RangeOut {
    static inline double junk[4];
    void** m = reinterpret_cast<void**>(junk);
    size_t n = 9;
    size_t* ml = reinterpret_cast<size_t*>(junk);
    double* s = junk;
    void** v = m;
    size_t* vl = ml;
};

class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override {
        server_ = std::make_unique<RedisServer>();
        mm_ = kv_mm_create(nullptr, nullptr, nullptr, 0);
        ASSERT_NE(mm_, nullptr);
        client_ = another(server_->port());
    }

    void TearDown() override {
        for (kv_client* c : clients_) kv_client_destroy(c);
        if (mm_ != nullptr) EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers left unreleased";
        kv_mm_destroy(mm_);
        server_.reset();
    }

    // A client of the fixture's manager registered with 127.0.0.1:port (expected to succeed unless `added` is
    // asked for); the fixture destroys it.
    kv_client* another(int port, int32_t* added = nullptr, const kv_credentials* credentials = nullptr,
                       int32_t connect_s = 1, int32_t command_s = 2, int32_t attempts = 2) {
        kv_client* c = kv_client_create(connect_s, command_s, mm_, attempts);
        EXPECT_NE(c, nullptr);
        clients_.push_back(c);
        const int32_t status = kv_server_add(c, "127.0.0.1", port, credentials);
        if (added != nullptr) *added = status;
        else EXPECT_EQ(status, KV_SUCCESS);
        return c;
    }

    std::string redis(const Strings& argv) const { return server_->command(argv); }

    // A server key as the server holds it: type, whole contents and absolute expiry (which, unlike the time left,
    // stays put), so that a test can show that a call changed nothing.
    std::string server_view(const std::string& key) const {
        const std::string type = redis({"TYPE", key});
        std::string contents;
        if (type == "zset") contents = redis({"ZRANGE", key, "0", "-1", "WITHSCORES"});
        if (type == "hash") contents = redis({"HGETALL", key});
        if (type == "set") contents = redis({"SMEMBERS", key});
        if (type == "string") contents = redis({"GET", key});
        return key + ": " + type + " [" + contents + "] expires " + redis({"PEXPIRETIME", key});
    }

    int32_t zadd(const std::string& key, double score, const std::string& member, int32_t ttl = 0) {
        return kv_zadd(client_, key.data(), key.size(), score, member.data(), member.size(), ttl);
    }
    int32_t zaddval(const std::string& key, double score, const std::string& member, const std::string& value,
                    int32_t ttl = 0) {
        return kv_zaddval(client_, key.data(), key.size(), score, member.data(), member.size(), value.data(),
                          value.size(), ttl);
    }
    // The key's time-to-live through c (the fixture's client by default), -1 when kv_get_ttl fails.
    int32_t ttl(const std::string& key, kv_client* c = nullptr) {
        int32_t t = -1;
        EXPECT_EQ(kv_get_ttl(c ? c : client_, key.data(), key.size(), &t), KV_SUCCESS) << key;
        return t;
    }
    // True when the key has t seconds left, the one that may have begun to run included.
    bool ttl_is(const std::string& key, int32_t t, kv_client* c = nullptr) {
        const int32_t got = ttl(key, c);
        return got == t || got == t - 1;
    }

    // The status of kv_zscore through c, which must clear every out-parameter on a failure.
    int32_t zscore_status(kv_client* c, const std::string& key, const std::string& member) {
        double score = 42;
        char* value = reinterpret_cast<char*>(RangeOut::junk);
        size_t len = 7;
        const int32_t status = kv_zscore(c, key.data(), key.size(), member.data(), member.size(), &score, &value, &len);
        if (status == KV_SUCCESS) mm_->release(value);
        else EXPECT_TRUE(score == 0 && value == nullptr && len == 0) << "status " << status;
        return status;
    }

    // A range read with every out-parameter: call(out) makes it and returns its status. The result is taken apart,
    // its shape checked and every buffer released.
    template <class Call>
    Range read(Call call) {
        RangeOut o;
        Range r;
        r.status = call(o);
        if (r.status != KV_SUCCESS || o.n == 0) {
            EXPECT_TRUE(o.n == 0 && !o.m && !o.ml && !o.s && !o.v && !o.vl) << "status " << r.status;
            return r;
        }
        for (size_t k = 0; k < o.n; ++k) {
            r.members.emplace_back(static_cast<char*>(o.m[k]), o.ml[k]);
            mm_->release(o.m[k]);
            if (o.s != nullptr) r.scores.push_back(o.s[k]);
            if (o.v == nullptr) continue;
            r.values.push_back(o.v[k] ? std::optional(std::string(static_cast<char*>(o.v[k]), o.vl[k]))
                                      : std::nullopt);
            mm_->release(o.v[k]);
        }
        for (void* array : std::initializer_list<void*>{o.m, o.ml, o.s, o.v, o.vl}) mm_->release(array);
        return r;
    }
    // kv_zrange with scores and values, through c (the fixture's client by default).
    Range range(const std::string& key, int32_t start, int32_t stop, kv_client* c = nullptr) {
        return read([&](RangeOut& o) {
            return kv_zrange(c ? c : client_, key.data(), key.size(), start, stop, &o.m, &o.n, &o.ml, kAll, &o.s,
                             &o.v, &o.vl);
        });
    }

    std::unique_ptr<RedisServer> server_;
    kv_mm* mm_ = nullptr;
    kv_client* client_ = nullptr;
    std::vector<kv_client*> clients_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_LIBRARY_FIXTURE_H
