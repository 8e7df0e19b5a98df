// cluster_client.h -- a kelvane client as the cluster tests use it: its own memory manager, seeds registered by
// port, and the calls the tests make with their results taken apart into owned data (every buffer released at
// once). When it goes, every buffer the library handed out must be back.
#ifndef KELVANE_TESTS_CLUSTER_CLIENT_H
#define KELVANE_TESTS_CLUSTER_CLIENT_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "kelvane.h"

namespace kelvane_test {

// "KV_TRY_AGAIN (109)" and the like, for reports.
std::string status_name(int32_t status);

class KvClient {
public:
    KvClient(int32_t connect_timeout_s = 1, int32_t command_timeout_s = 2, int32_t connect_attempts = 2);
    // Destroys the client, checks that the memory manager has every buffer back, destroys the manager.
    ~KvClient();
    KvClient(const KvClient&) = delete;
    KvClient& operator=(const KvClient&) = delete;

    int32_t add_seed(int port);
    // The most any one call may take: connect attempts x connect timeout + command timeout.
    double call_bound_s() const { return attempts_ * connect_s_ + command_s_; }
    kv_client* get() const { return client_; }
    size_t live_buffers() const { return mm_->live_count(mm_); }

    int32_t zaddval(const std::string& key, double score, const std::string& member, const std::string& value);
    int32_t zincrby(const std::string& key, const std::string& member, double increment, double* new_score);
    int32_t del(const std::string& key);

    struct Scored {
        int32_t status = -1;
        double score = 0;
        std::optional<std::string> value;
    };
    Scored zscore(const std::string& key, const std::string& member);

    // A whole sorted set: member -> (score, value).
    struct Members {
        int32_t status = -1;
        std::map<std::string, std::pair<double, std::optional<std::string>>> items;
    };
    Members zrange_all(const std::string& key);

private:
    int32_t connect_s_, command_s_, attempts_;
    kv_mm* mm_ = nullptr;
    kv_client* client_ = nullptr;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_CLUSTER_CLIENT_H
