// cluster_client.cpp -- the cluster tests' kelvane client: calls and their results as owned data.
#include "cluster_client.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kelvane_test {

std::string status_name(int32_t status) {
    static const std::map<int32_t, const char*> names = {
        {KV_SUCCESS, "KV_SUCCESS"},
        {KV_WRONG_REPLY, "KV_WRONG_REPLY"},
        {KV_ALREADY_EXISTS, "KV_ALREADY_EXISTS"},
        {KV_NOTFOUND, "KV_NOTFOUND"},
        {KV_INVALID_PARAMETER, "KV_INVALID_PARAMETER"},
        {KV_NO_SET_KEY, "KV_NO_SET_KEY"},
        {KV_NO_SERVER, "KV_NO_SERVER"},
        {KV_CONNECT_FAILED, "KV_CONNECT_FAILED"},
        {KV_TIMEOUT, "KV_TIMEOUT"},
        {KV_CONNECTION_LOST, "KV_CONNECTION_LOST"},
        {KV_SERVER_ERROR, "KV_SERVER_ERROR"},
        {KV_NO_MEMORY, "KV_NO_MEMORY"},
        {KV_AUTH_FAILED, "KV_AUTH_FAILED"},
        {KV_SERVER_FULL, "KV_SERVER_FULL"},
        {KV_CLUSTER_DOWN, "KV_CLUSTER_DOWN"},
        {KV_TRY_AGAIN, "KV_TRY_AGAIN"},
        {KV_LIBRARY_MISMATCH, "KV_LIBRARY_MISMATCH"},
        {KV_NOT_PERMITTED, "KV_NOT_PERMITTED"},
    };
    const auto it = names.find(status);
    return (it == names.end() ? std::string("status") : std::string(it->second)) + " (" + std::to_string(status) +
           ")";
}

KvClient::KvClient(int32_t connect_timeout_s, int32_t command_timeout_s, int32_t connect_attempts)
    : connect_s_(connect_timeout_s), command_s_(command_timeout_s), attempts_(connect_attempts) {
    mm_ = kv_mm_create(nullptr, nullptr, nullptr, 0);
    if (mm_ == nullptr) throw std::runtime_error("kv_mm_create failed");
    client_ = kv_client_create(connect_timeout_s, command_timeout_s, mm_, connect_attempts);
    if (client_ == nullptr) {
        kv_mm_destroy(mm_);
        throw std::runtime_error("kv_client_create failed");
    }
}

KvClient::~KvClient() {
    kv_client_destroy(client_);
    EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers the library handed out and nobody got back";
    kv_mm_destroy(mm_);
}

int32_t KvClient::add_seed(int port) {
    return kv_server_add(client_, "127.0.0.1", static_cast<uint32_t>(port), nullptr);
}

int32_t KvClient::zaddval(const std::string& key, double score, const std::string& member,
                          const std::string& value) {
    return kv_zaddval(client_, key.data(), key.size(), score, member.data(), member.size(), value.data(),
                      value.size(), 0);
}

int32_t KvClient::zincrby(const std::string& key, const std::string& member, double increment,
                          double* new_score) {
    return kv_zincrby(client_, key.data(), key.size(), member.data(), member.size(), increment, new_score, 0);
}

int32_t KvClient::del(const std::string& key) { return kv_del(client_, key.data(), key.size()); }

KvClient::Scored KvClient::zscore(const std::string& key, const std::string& member) {
    Scored out;
    char* value = nullptr;
    size_t len = 0;
    out.status = kv_zscore(client_, key.data(), key.size(), member.data(), member.size(), &out.score, &value, &len);
    if (value != nullptr) {
        out.value = std::string(value, len);
        mm_->release(value);
    }
    return out;
}

KvClient::Members KvClient::zrange_all(const std::string& key) {
    Members out;
    void** members = nullptr;
    size_t count = 0;
    size_t* members_len = nullptr;
    double* scores = nullptr;
    void** values = nullptr;
    size_t* values_len = nullptr;
    out.status = kv_zrange(client_, key.data(), key.size(), 0, -1, &members, &count, &members_len,
                           ZSET_WITH_SCORES | ZSET_WITH_VALUES, &scores, &values, &values_len);
    for (size_t k = 0; k < count && members != nullptr; ++k) {
        std::optional<std::string> value;
        if (values != nullptr && values[k] != nullptr) value = std::string(static_cast<char*>(values[k]), values_len[k]);
        out.items[std::string(static_cast<char*>(members[k]), members_len[k])] = {scores ? scores[k] : 0, value};
        mm_->release(members[k]);
        if (values != nullptr) mm_->release(values[k]);
    }
    for (void* array : {static_cast<void*>(members), static_cast<void*>(members_len), static_cast<void*>(scores),
                        static_cast<void*>(values), static_cast<void*>(values_len)}) {
        mm_->release(array);
    }
    return out;
}

}  // namespace kelvane_test
