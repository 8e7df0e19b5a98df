// wire_fixture.h -- what the tests of a misbehaving server share: a memory manager that records the largest buffer
// the library asked for (and refuses any past 64 MiB, so a client that believed an announced count shows it here
// without taking the memory) and must have every buffer back at the end, and clients of a fake server on a chosen
// read path, with settings 1, 1 and 1, so that every call ends within 2 s.
#ifndef KELVANE_TESTS_WIRE_FIXTURE_H
#define KELVANE_TESTS_WIRE_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fake_server.h"
#include "kelvane.h"

namespace kelvane_test {

// A server that answers each command as sound does, but twice: the copy right behind the reply, or, while late is
// set, ahead of the next command's reply (as a server that sent it at the wrong moment). Commands for which once(c)
// holds are answered once.
inline FakeServer::Script answered_twice(FakeServer::Script sound, const std::atomic<bool>& late,
                                         std::function<bool(const Command&)> once) {
    auto held = std::make_shared<std::string>();  // the copy still owed (server thread only)
    return [=, &late](const Command& c) {
        const std::string reply = sound(c);
        if (once(c)) return reply;
        if (!late) return reply + reply;
        std::string out = *held + reply;
        *held = reply;
        return out;
    };
}

class WireTest : public ::testing::Test {
protected:
    void SetUp() override {
        mm_ = kv_mm_create(recording_alloc, recording_free, &largest_, 0);
        ASSERT_NE(mm_, nullptr);
    }
    void TearDown() override {
        for (kv_client* c : clients_) kv_client_destroy(c);
        EXPECT_EQ(mm_->live_count(mm_), 0u) << "buffers left unreleased";
        kv_mm_destroy(mm_);
    }

    // A client of server whose reads take the path reads (KELVANE_READS); the fixture destroys it.
    kv_client* client_of(const FakeServer& server, const char* reads, int32_t expected = KV_SUCCESS) {
        setenv("KELVANE_READS", reads, 1);
        kv_client* c = kv_client_create(1, 1, mm_, 1);
        unsetenv("KELVANE_READS");
        clients_.push_back(c);
        EXPECT_EQ(kv_server_add(c, "127.0.0.1", server.port(), nullptr), expected);
        return c;
    }

    // kv_zscore of member in "k"; *score as the call left it, the value released.
    int32_t zscore(kv_client* c, const std::string& member, double* score) {
        char* value = nullptr;
        size_t len = 9;
        const int32_t status = kv_zscore(c, "k", 1, member.data(), member.size(), score, &value, &len);
        mm_->release(value);
        return status;
    }

    // kv_zscore of member "i" from a server whose sound answer is score i: the call answers that score or
    // KV_SERVER_ERROR, never another call's.
    void expect_own_score(kv_client* c, int i, const char* how) {
        double score = -1;
        const int32_t status = zscore(c, std::to_string(i), &score);
        EXPECT_TRUE(status == KV_SERVER_ERROR || (status == KV_SUCCESS && score == i))
            << how << ": member " << i << " answered " << status << ", score " << score;
    }

    std::atomic<size_t> largest_{0};
    kv_mm* mm_ = nullptr;
    std::vector<kv_client*> clients_;

private:
    static void* recording_alloc(void* ctx, size_t size) {
        auto* largest = static_cast<std::atomic<size_t>*>(ctx);
        if (size > *largest) *largest = size;
        return size > (size_t{64} << 20) ? nullptr : std::malloc(size);
    }
    static void recording_free(void*, void* p) { std::free(p); }
};

}  // namespace kelvane_test

#endif  // KELVANE_TESTS_WIRE_FIXTURE_H
