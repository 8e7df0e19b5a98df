// library_fixture.h -- what every library test shares: a private Redis
// server, a client registered with it, and a memory manager that must have
// every buffer back when the test ends.
#ifndef KELVANE_TESTS_LIBRARY_FIXTURE_H
#define KELVANE_TESTS_LIBRARY_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvane.h"
#include "redis_server.h"

namespace kelvane_test {

// A range read taken apart into owned data; every buffer is released.
struct Range {
    int32_t status = -1;
    std::vector<std::string> members;
    std::vector<double> scores;
    std::vector<std::optional<std::string>> values;
};

class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override {
        server_ = std::make_unique<RedisServer>();
        mm_ = kv_mm_create(nullptr, nullptr, nullptr, 0);
        ASSERT_NE(mm_, nullptr);
        client_ = kv_client_create(1, 2, mm_, 2);
        ASSERT_NE(client_, nullptr);
        ASSERT_EQ(kv_server_add(client_, "127.0.0.1", server_->port(), nullptr), KV_SUCCESS);
    }

    void TearDown() override {
        if (mm_ != nullptr) EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers left unreleased";
        kv_client_destroy(client_);
        kv_mm_destroy(mm_);
        server_.reset();
    }

    std::string redis(const std::vector<std::string>& argv) const { return server_->command(argv); }

    int32_t zadd(const std::string& key, double score, const std::string& member,
                 int32_t ttl = 0) {
        return kv_zadd(client_, key.data(), key.size(), score, member.data(), member.size(), ttl);
    }
    int32_t zaddval(const std::string& key, double score, const std::string& member,
                    const std::string& value, int32_t ttl = 0) {
        return kv_zaddval(client_, key.data(), key.size(), score, member.data(), member.size(),
                          value.data(), value.size(), ttl);
    }
    uint32_t card(const std::string& key) {
        uint32_t n = 12345;
        EXPECT_EQ(kv_zcard(client_, key.data(), key.size(), &n), KV_SUCCESS);
        return n;
    }
    int32_t ttl_of(const std::string& key, int32_t* ttl) {
        return kv_get_ttl(client_, key.data(), key.size(), ttl);
    }

    // Score and value of a member, with the status of the read.
    struct Scored {
        int32_t status;
        double score;
        std::optional<std::string> value;
        bool found() const { return status == KV_SUCCESS; }
    };
    Scored score_of(const std::string& key, const std::string& member) {
        double score = 0;
        char* value = nullptr;
        size_t len = 0;
        Scored out{kv_zscore(client_, key.data(), key.size(), member.data(), member.size(),
                             &score, &value, &len),
                   score, std::nullopt};
        if (value != nullptr) {
            EXPECT_EQ(value[len], '\0') << "a value is handed out NUL-terminated";
            out.value = std::string(value, len);
        }
        mm_->release(value);
        return out;
    }

    // Takes a range result apart, checks its shape and releases every buffer.
    Range take(int32_t status, void** members, size_t count, size_t* lens, double* scores,
               void** values, size_t* values_len) {
        Range r;
        r.status = status;
        if (count == 0) {
            EXPECT_TRUE(!members && !lens && !scores && !values && !values_len) << "arrays of nothing";
            return r;
        }
        for (size_t k = 0; k < count; ++k) {
            r.members.emplace_back(static_cast<char*>(members[k]), lens[k]);
            mm_->release(members[k]);
            if (scores != nullptr) r.scores.push_back(scores[k]);
            if (values == nullptr) continue;
            if (values[k] == nullptr) {
                EXPECT_EQ(values_len[k], 0u);
                r.values.emplace_back(std::nullopt);
            } else {
                r.values.emplace_back(std::string(static_cast<char*>(values[k]), values_len[k]));
            }
            mm_->release(values[k]);
        }
        for (void* array : {static_cast<void*>(members), static_cast<void*>(lens), static_cast<void*>(scores),
                            static_cast<void*>(values), static_cast<void*>(values_len)}) {
            mm_->release(array);
        }
        return r;
    }

    // kv_zrange and kv_zrangebyscore (limited when count is given), with
    // scores and values.
    Range range(const std::string& key, int32_t start, int32_t stop, int32_t flags = 0) {
        void** m = nullptr; size_t n = 0; size_t* ml = nullptr;
        double* s = nullptr; void** v = nullptr; size_t* vl = nullptr;
        const int32_t f = flags | ZSET_WITH_SCORES | ZSET_WITH_VALUES;
        int32_t status = kv_zrange(client_, key.data(), key.size(), start, stop, &m, &n, &ml, f, &s, &v, &vl);
        return take(status, m, n, ml, s, v, vl);
    }
    Range by_score(const std::string& key, double min, double max, int32_t flags = 0,
                   int32_t offset = 0, int32_t count = -1) {
        void** m = nullptr; size_t n = 0; size_t* ml = nullptr;
        double* s = nullptr; void** v = nullptr; size_t* vl = nullptr;
        const int32_t f = flags | ZSET_WITH_SCORES | ZSET_WITH_VALUES;
        int32_t status = (flags & ZSET_WITH_LIMIT)
            ? kv_zrangebyscore(client_, key.data(), key.size(), min, max, &m, &n, &ml, f, offset, count, &s, &v, &vl)
            : kv_zrangebyscore(client_, key.data(), key.size(), min, max, &m, &n, &ml, f, &s, &v, &vl);
        return take(status, m, n, ml, s, v, vl);
    }

    std::unique_ptr<RedisServer> server_;
    kv_mm* mm_ = nullptr;
    kv_client* client_ = nullptr;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_LIBRARY_FIXTURE_H
