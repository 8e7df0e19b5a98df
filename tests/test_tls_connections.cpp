// TLS to real servers: each mode against a good server (by address and by name, with replies of many records);
// what each mode checks of a bad certificate (untrusted, another name, expired); client certificates; plaintext and
// TLS at the wrong port; and handshakes or replies that stall or trickle, each within the call's one deadline.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "slow_relay.h"
#include "tls_fixture.h"

namespace kelvane_test {
namespace {

// The bound of a (1, 2, 2) client, 4 s, with a margin for a loaded machine.
constexpr double kBound = 4.0 + 1.5;

using TlsModes = TlsTest;
using CertificateChecks = TlsTest;
using ClientCertificates = TlsTest;
using TlsStalls = TlsTest;

TEST_F(TlsModes, EachModeServesCallsByAddressAndByName) {
    const auto server = tls_server(certs_.server());
    for (const int32_t mode : {KV_TLS_REQUIRE, KV_TLS_VERIFY_CA, KV_TLS_VERIFY_FULL}) {
        for (const char* host : {"127.0.0.1", "localhost"}) {
            SCOPED_TRACE(std::string(host) + " mode " + std::to_string(mode));
            kv_client* c = client();
            const kv_server_options o = tls(mode);
            ASSERT_EQ(kv_server_add_options(c, host, server->port(), &o), KV_SUCCESS) << kv_last_error(c);
            EXPECT_TRUE(round_trip(c)) << kv_last_error(c);
            EXPECT_STREQ(kv_last_error(c), "");
        }
    }
    // No mode anywhere, but a CA file: verify-full, never plaintext.
    kv_client* c = client();
    kv_server_options o = KV_SERVER_OPTIONS_INIT;
    o.tls_ca_file = ca_.c_str();
    ASSERT_EQ(kv_server_add_options(c, "127.0.0.1", server->port(), &o), KV_SUCCESS) << kv_last_error(c);

    // A reply of many TLS records (members and values of 2,000 bytes each), read whole and in order.
    const std::string value(2000, 'x');
    for (int i = 0; i < 500; ++i) {
        const std::string member = "m" + std::to_string(1000 + i);
        ASSERT_EQ(kv_zaddval(c, "big", 3, i, member.data(), member.size(), value.data(), value.size(), 0), KV_SUCCESS);
    }
    void **members = nullptr, **values = nullptr;
    size_t count = 0, *members_len = nullptr, *values_len = nullptr;
    ASSERT_EQ(kv_zrange(c, "big", 3, 0, -1, &members, &count, &members_len, ZSET_WITH_VALUES, &values, &values_len),
              KV_SUCCESS);
    ASSERT_EQ(count, 500u);
    for (size_t k = 0; k < count; ++k) {
        EXPECT_EQ(std::string(static_cast<char*>(members[k]), members_len[k]), "m" + std::to_string(1000 + k));
        EXPECT_EQ(std::string(static_cast<char*>(values[k]), values_len[k]), value);
        mm_->release(members[k]);
        mm_->release(values[k]);
    }
    for (void* array : {static_cast<void*>(members), static_cast<void*>(values), static_cast<void*>(members_len),
                        static_cast<void*>(values_len)}) {
        mm_->release(array);
    }
}

// A plaintext client at a TLS port, and a TLS client at a plaintext port: KV_TLS_FAILED with a reason, within the
// bound (a plaintext server waits for the end of a line that a TLS hello never sends), and no seed is lost.
TEST_F(TlsModes, PlaintextAtATlsPortAndTlsAtAPlaintextPortFailClearly) {
    const auto server = tls_server(certs_.server());
    kv_client* plain = client();
    EXPECT_EQ(within(kBound, [&] { return kv_server_add(plain, "127.0.0.1", server->port(), nullptr); }),
              KV_TLS_FAILED);
    EXPECT_TRUE(contains(kv_last_error(plain), "TLS port")) << kv_last_error(plain);
    EXPECT_EQ(within(kBound, [&] { return kv_zadd(plain, "k", 1, 1, "m", 1, 0); }), KV_TLS_FAILED);

    kv_client* encrypted = client();
    const kv_server_options o = tls(KV_TLS_VERIFY_FULL);
    EXPECT_EQ(within(kBound, [&] { return kv_server_add_options(encrypted, "127.0.0.1", server->admin_port(), &o); }),
              KV_TLS_FAILED);
    EXPECT_TRUE(contains(kv_last_error(encrypted), "does not speak TLS")) << kv_last_error(encrypted);
    // The seed stays registered: the same address again is known.
    EXPECT_EQ(kv_server_add_options(encrypted, "127.0.0.1", server->admin_port(), &o), KV_ALREADY_EXISTS);
}

TEST_F(CertificateChecks, ChainNameAndExpiryAreCheckedAsTheModeSays) {
    struct Case {
        const char* what;
        CertPair pair;
        int32_t require, verify_ca, verify_full;
        const char* reason;  // in kv_last_error when verification fails
    };
    const std::vector<Case> cases = {
        {"untrusted chain", certs_.untrusted(), KV_SUCCESS, KV_CERT_REJECTED, KV_CERT_REJECTED, "local issuer"},
        {"another name", certs_.wrong_name(), KV_SUCCESS, KV_SUCCESS, KV_CERT_REJECTED, "mismatch"},
        {"expired", certs_.expired(), KV_SUCCESS, KV_CERT_REJECTED, KV_CERT_REJECTED, "expired"},
    };
    for (const Case& k : cases) {
        const auto server = tls_server(k.pair);
        for (const auto& [mode, expected] : std::vector<std::pair<int32_t, int32_t>>{
                 {KV_TLS_REQUIRE, k.require}, {KV_TLS_VERIFY_CA, k.verify_ca}, {KV_TLS_VERIFY_FULL, k.verify_full}}) {
            SCOPED_TRACE(std::string(k.what) + ", mode " + std::to_string(mode));
            kv_client* c = client();
            const kv_server_options o = tls(mode);
            EXPECT_EQ(within(kBound, [&] { return kv_server_add_options(c, "127.0.0.1", server->port(), &o); }),
                      expected)
                << kv_last_error(c);
            if (expected == KV_SUCCESS) EXPECT_TRUE(round_trip(c)) << kv_last_error(c);
            else EXPECT_TRUE(contains(kv_last_error(c), k.reason)) << kv_last_error(c);
        }
    }
    // The name to check, given for the store: the certificate for elsewhere.test passes verify-full through it,
    // and the good one no longer does.
    for (const auto& [pair, expected] : {std::pair{certs_.wrong_name(), KV_SUCCESS},
                                         std::pair{certs_.server(), KV_CERT_REJECTED}}) {
        const auto server = tls_server(pair);
        kv_client* c = client();
        kv_server_options o = tls(KV_TLS_VERIFY_FULL);
        o.tls_server_name = "elsewhere.test";
        EXPECT_EQ(kv_server_add_options(c, "127.0.0.1", server->port(), &o), expected) << kv_last_error(c);
    }
}

TEST_F(ClientCertificates, RequiredOnesArePresentedAndOthersRefused) {
    const auto server = tls_server(certs_.server(), true);
    kv_server_options o = tls(KV_TLS_VERIFY_FULL);
    kv_client* without = client();
    EXPECT_EQ(within(kBound, [&] { return kv_server_add_options(without, "127.0.0.1", server->port(), &o); }),
              KV_TLS_FAILED);
    EXPECT_TRUE(contains(kv_last_error(without), "certificate")) << kv_last_error(without);

    const CertPair mine = certs_.client(), foreign = certs_.untrusted_client();
    o.tls_cert_file = foreign.cert.c_str();
    o.tls_key_file = foreign.key.c_str();
    kv_client* untrusted = client();
    EXPECT_EQ(within(kBound, [&] { return kv_server_add_options(untrusted, "127.0.0.1", server->port(), &o); }),
              KV_TLS_FAILED);

    o.tls_cert_file = mine.cert.c_str();
    o.tls_key_file = mine.key.c_str();
    kv_client* good = client();
    ASSERT_EQ(kv_server_add_options(good, "127.0.0.1", server->port(), &o), KV_SUCCESS) << kv_last_error(good);
    EXPECT_TRUE(round_trip(good));
}

// A listener that accepts and never answers, a TLS server that is frozen, and one whose bytes trickle in (one every
// 1.5 s, under a 2 s connect timeout, so that no single wait ever runs out): the handshake, and calls on a working
// TLS connection, end within the call's bound; once the server answers again, calls work.
TEST_F(TlsStalls, SilentOrTricklingHandshakesAndRepliesEndWithinTheBound) {
    const kv_server_options o = tls(KV_TLS_VERIFY_FULL);
    const int mute = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::bind(mute, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(mute, 4), 0);
    ASSERT_EQ(::getsockname(mute, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    kv_client* c = client();
    EXPECT_EQ(within(kBound, [&] { return kv_server_add_options(c, "127.0.0.1", ntohs(addr.sin_port), &o); }),
              KV_TLS_FAILED);
    ::close(mute);

    const auto server = tls_server(certs_.server());
    SlowRelay relay(server->port());
    constexpr double kSlowBound = 2 * 2 + 2 + 1.5;  // a (2, 2, 2) client
    kv_client* direct = client(2, 2, 2);
    kv_client* relayed = client(2, 2, 2);
    ASSERT_EQ(kv_server_add_options(direct, "127.0.0.1", server->port(), &o), KV_SUCCESS);
    ASSERT_EQ(kv_server_add_options(relayed, "127.0.0.1", relay.port(), &o), KV_SUCCESS);
    ASSERT_TRUE(round_trip(direct) && round_trip(relayed));

    server->freeze();
    EXPECT_EQ(within(kSlowBound, [&] { return kv_zadd(direct, "k", 1, 1, "n", 1, 0); }), KV_TIMEOUT);
    kv_client* late = client(2, 2, 2);
    EXPECT_EQ(within(kSlowBound, [&] { return kv_server_add_options(late, "127.0.0.1", server->port(), &o); }),
              KV_TLS_FAILED);
    server->thaw();

    relay.trickle(true);
    EXPECT_EQ(within(kSlowBound, [&] { return kv_zadd(relayed, "k", 1, 1, "n", 1, 0); }), KV_TIMEOUT);
    kv_client* trickled = client(2, 2, 2);
    EXPECT_EQ(within(kSlowBound, [&] { return kv_server_add_options(trickled, "127.0.0.1", relay.port(), &o); }),
              KV_TLS_FAILED);
    relay.trickle(false);

    EXPECT_TRUE(round_trip(direct));
    EXPECT_TRUE(round_trip(late));
    EXPECT_TRUE(round_trip(relayed));
}

}  // namespace
}  // namespace kelvane_test
