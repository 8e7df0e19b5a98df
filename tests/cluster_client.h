// cluster_client.h -- a kelvane client for the cluster tests: its own memory manager, seeds registered by port,
// results taken apart into owned data (every buffer released at once), and every buffer back when it goes.
#ifndef KELVANE_TESTS_CLUSTER_CLIENT_H
#define KELVANE_TESTS_CLUSTER_CLIENT_H

#include <gtest/gtest.h>

#include <chrono>
#include <initializer_list>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "kelvane.h"

namespace kelvane_test {

using Clock = std::chrono::steady_clock;

inline double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Waits as zset's client does: 1 s to connect, 2 attempts, 2 s for a reply.
class KvClient {
public:
    // The most any one call may take: connect attempts x connect timeout + command timeout.
    static constexpr double kCallBound_s = 2 * 1 + 2;

    KvClient() : mm_(kv_mm_create(nullptr, nullptr, nullptr, 0)), client_(kv_client_create(1, 2, mm_, 2)) {
        if (mm_ == nullptr || client_ == nullptr) throw std::runtime_error("cannot create a kelvane client");
    }
    ~KvClient() {
        kv_client_destroy(client_);
        EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers the library handed out and nobody got back";
        kv_mm_destroy(mm_);
    }
    KvClient(const KvClient&) = delete;
    KvClient& operator=(const KvClient&) = delete;

    int32_t add_seed(int port) { return kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(port), nullptr); }

    int32_t zaddval(const std::string& key, double score, const std::string& member, const std::string& value) {
        return kv_zaddval(client_, key.data(), key.size(), score, member.data(), member.size(), value.data(),
                          value.size(), 0);
    }

    struct Scored {
        int32_t status = -1;
        double score = 0;
        std::optional<std::string> value;
    };
    Scored zscore(const std::string& key, const std::string& member) {
        Scored out;
        char* value = nullptr;
        size_t len = 0;
        out.status = kv_zscore(client_, key.data(), key.size(), member.data(), member.size(), &out.score, &value, &len);
        if (value != nullptr) out.value = std::string(value, len);
        mm_->release(value);
        return out;
    }

    // A whole sorted set: member -> (score, value).
    struct Members {
        int32_t status = -1;
        std::map<std::string, std::pair<double, std::optional<std::string>>> items;
    };
    Members zrange_all(const std::string& key) {
        Members out;
        void **members = nullptr, **values = nullptr;
        size_t count = 0, *members_len = nullptr, *values_len = nullptr;
        double* scores = nullptr;
        out.status = kv_zrange(client_, key.data(), key.size(), 0, -1, &members, &count, &members_len,
                               ZSET_WITH_SCORES | ZSET_WITH_VALUES, &scores, &values, &values_len);
        for (size_t k = 0; k < count; ++k) {
            auto& item = out.items[std::string(static_cast<char*>(members[k]), members_len[k])];
            item.first = scores[k];
            if (values[k] != nullptr) item.second.emplace(static_cast<char*>(values[k]), values_len[k]);
            mm_->release(members[k]);
            mm_->release(values[k]);
        }
        for (void* array : std::initializer_list<void*>{members, members_len, scores, values, values_len}) {
            mm_->release(array);
        }
        return out;
    }

private:
    kv_mm* mm_;
    kv_client* client_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_CLUSTER_CLIENT_H
