// tls_fixture.h -- what the TLS and settings tests share: throwaway certificates, a private TLS server (its
// plaintext admin port for the test's own look at the data), clients of a checked memory manager that the fixture
// destroys, settings for each mode, and environment variables set for one test only.
#ifndef KELVANE_TESTS_TLS_FIXTURE_H
#define KELVANE_TESTS_TLS_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelvane.h"
#include "redis_server.h"
#include "tls_certificates.h"

namespace kelvane_test {

constexpr const char* kSettingsVariables[] = {"KELVANE_TLS_MODE",      "KELVANE_TLS_CA_FILE",   "KELVANE_TLS_CA_DIR",
                                              "KELVANE_TLS_CERT_FILE", "KELVANE_TLS_KEY_FILE",
                                              "KELVANE_TLS_SERVER_NAME", "KELVANE_USER", "KELVANE_PASSWORD"};

// Sets environment variables for as long as it lives (nullptr unsets one), then puts back what was there.
class ScopedEnv {
public:
    ScopedEnv(std::initializer_list<std::pair<const char*, const char*>> vars) {
        for (const auto& [name, value] : vars) {
            const char* before = std::getenv(name);
            saved_.emplace(name, before ? std::optional<std::string>(before) : std::nullopt);
            if (value) setenv(name, value, 1);
            else unsetenv(name);
        }
    }
    ~ScopedEnv() {
        for (const auto& [name, value] : saved_) {
            if (value) setenv(name.c_str(), value->c_str(), 1);
            else unsetenv(name.c_str());
        }
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::map<std::string, std::optional<std::string>> saved_;
};

// Runs call, expects it back within bound seconds (a hang-safety bound, not a speed target), returns its status.
template <class Call>
int32_t within(double bound, Call call) {
    const auto start = std::chrono::steady_clock::now();
    const int32_t status = call();
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(took, bound) << "answered " << kv_status_name(status);
    return status;
}

inline bool contains(const char* text, const std::string& part) {
    return std::string(text).find(part) != std::string::npos;
}

class TlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : kSettingsVariables) unsetenv(name);  // only what a test sets counts
        mm_ = kv_mm_create(nullptr, nullptr, nullptr, 0);
        ASSERT_NE(mm_, nullptr);
    }
    void TearDown() override {
        for (kv_client* c : clients_) kv_client_destroy(c);
        EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers left unreleased";
        kv_mm_destroy(mm_);
    }

    // A TLS server with this certificate (the good one by default); client certificates required when asked.
    std::unique_ptr<RedisServer> tls_server(const CertPair& pair, bool require_client_cert = false) const {
        ServerOptions o;
        o.tls_cert = pair.cert;
        o.tls_key = pair.key;
        o.tls_ca = certs_.ca();
        o.tls_auth_clients = require_client_cert;
        return std::make_unique<RedisServer>(0, o);
    }

    kv_client* client(int32_t connect_s = 1, int32_t command_s = 2, int32_t attempts = 2) {
        kv_client* c = kv_client_create(connect_s, command_s, mm_, attempts);
        EXPECT_NE(c, nullptr);
        clients_.push_back(c);
        return c;
    }

    // Settings of a mode that trusts the test authority.
    kv_server_options tls(int32_t mode) const {
        kv_server_options o = KV_SERVER_OPTIONS_INIT;
        o.tls_mode = mode;
        o.tls_ca_file = ca_.c_str();
        return o;
    }

    // A write and a read of it back through c.
    bool round_trip(kv_client* c) {
        if (kv_zaddval(c, "k", 1, 2.5, "m", 1, "v", 1, 0) > KV_ALREADY_EXISTS) return false;
        double score = 0;
        char* value = nullptr;
        size_t len = 0;
        const int32_t status = kv_zscore(c, "k", 1, "m", 1, &score, &value, &len);
        const bool same = status == KV_SUCCESS && score == 2.5 && std::string(value, len) == "v";
        mm_->release(value);
        return same;
    }

    TestCertificates certs_;
    const std::string ca_ = certs_.ca();
    kv_mm* mm_ = nullptr;
    std::vector<kv_client*> clients_;
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_TLS_FIXTURE_H
