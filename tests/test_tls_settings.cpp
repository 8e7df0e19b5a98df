// Settings and what the client says about failures: settings that cannot be used (the seed is not registered);
// credentials and TLS from the environment, the caller's settings winning field by field; Unix socket seeds; the
// names of statuses, kv_last_error and the version.
#include <sys/stat.h>

#include <string>
#include <vector>

#include "command_runner.h"
#include "tls_fixture.h"

namespace kelvane_test {
namespace {

using BadSettings = TlsTest;
using Environment = TlsTest;
using UnixSocket = TlsTest;
using Texts = TlsTest;

TEST_F(BadSettings, AreRefusedWithTheReasonAndTheSeedIsNotRegistered) {
    const auto server = tls_server(certs_.server());
    const TempDir scratch;
    const std::string missing = scratch / "missing.pem", not_a_cert = certs_.other_key(), key = certs_.other_key();
    // A FIFO cannot be read without a writer: reading it would wait for one.
    const std::string fifo = scratch / "ca.fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const CertPair mine = certs_.client();
    struct Case {
        const char* what;
        std::vector<std::pair<const char*, const char*>> env;
        kv_server_options options;
        std::string reason;  // in kv_last_error
    };
    const auto with = [&](auto change) {
        kv_server_options o = tls(KV_TLS_VERIFY_FULL);
        change(o);
        return o;
    };
    const std::vector<Case> cases = {
        {"missing CA file", {}, with([&](auto& o) { o.tls_ca_file = missing.c_str(); }), missing},
        {"CA file without a certificate", {}, with([&](auto& o) { o.tls_ca_file = not_a_cert.c_str(); }), not_a_cert},
        {"CA file that is a FIFO", {}, with([&](auto& o) { o.tls_ca_file = fifo.c_str(); }), "not a regular file"},
        {"missing CA directory", {}, with([&](auto& o) { o.tls_ca_dir = missing.c_str(); }), missing},
        {"missing certificate", {}, with([&](auto& o) { o.tls_cert_file = missing.c_str(); }), missing},
        {"missing key", {}, with([&](auto& o) {
             o.tls_cert_file = mine.cert.c_str();
             o.tls_key_file = missing.c_str();
         }), missing},
        {"certificate with no key in it", {}, with([&](auto& o) { o.tls_cert_file = mine.cert.c_str(); }),
         "private key"},
        {"key of another certificate", {}, with([&](auto& o) {
             o.tls_cert_file = mine.cert.c_str();
             o.tls_key_file = key.c_str();
         }), "does not match"},
        {"unknown mode", {}, with([&](auto& o) { o.tls_mode = 9; }), "not a TLS mode"},
        {"unknown mode in the environment", {{"KELVANE_TLS_MODE", "verify-everything"}},
         KV_SERVER_OPTIONS_INIT, "verify-everything"},
        {"missing CA file in the environment", {{"KELVANE_TLS_CA_FILE", missing.c_str()}}, KV_SERVER_OPTIONS_INIT,
         missing},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        const ScopedEnv env(std::initializer_list<std::pair<const char*, const char*>>{});
        for (const auto& [name, value] : k.env) setenv(name, value, 1);
        kv_client* c = client();
        EXPECT_EQ(within(5, [&] { return kv_server_add_options(c, "127.0.0.1", server->port(), &k.options); }),
                  KV_BAD_SETTINGS);
        EXPECT_TRUE(contains(kv_last_error(c), k.reason)) << kv_last_error(c);
        EXPECT_EQ(kv_zadd(c, "k", 1, 1, "m", 1, 0), KV_NO_SERVER);
        for (const auto& [name, value] : k.env) unsetenv(name);
        // Not registered: the same address with usable settings is a new seed.
        const kv_server_options good = tls(KV_TLS_VERIFY_FULL);
        EXPECT_EQ(kv_server_add_options(c, "127.0.0.1", server->port(), &good), KV_SUCCESS) << kv_last_error(c);
    }
    kv_client* c = client();
    kv_server_options cut = tls(KV_TLS_VERIFY_FULL);
    cut.size = sizeof(size_t);  // not even the user
    EXPECT_EQ(kv_server_add_options(c, "127.0.0.1", server->port(), &cut), KV_INVALID_PARAMETER);
    // A caller built against an older, shorter structure: what lies past its size is not read.
    cut.size = offsetof(kv_server_options, tls_mode);
    cut.tls_mode = 9;
    const ScopedEnv env({{"KELVANE_TLS_MODE", "verify-full"}, {"KELVANE_TLS_CA_FILE", ca_.c_str()}});
    EXPECT_EQ(kv_server_add_options(c, "127.0.0.1", server->port(), &cut), KV_SUCCESS) << kv_last_error(c);
}

// User and password from the environment, and the caller's values winning over it field by field; TLS settings
// (a client certificate included) from the environment, for a program that passes NULL as zset does.
TEST_F(Environment, CredentialsAndTlsComeFromItAndTheCallersSettingsWin) {
    const auto server = tls_server(certs_.server(), true);
    ASSERT_EQ(server->command({"ACL", "SETUSER", "envuser", "on", ">envpass", "~*", "&*", "+@all"}), "OK");
    const CertPair mine = certs_.client();
    const ScopedEnv tls_env({{"KELVANE_TLS_MODE", "verify-full"}, {"KELVANE_TLS_CA_FILE", ca_.c_str()},
                             {"KELVANE_TLS_CERT_FILE", mine.cert.c_str()}, {"KELVANE_TLS_KEY_FILE", mine.key.c_str()},
                             {"KELVANE_USER", "envuser"}, {"KELVANE_PASSWORD", "envpass"}});
    const auto add = [&](const kv_server_options* o, const kv_credentials* credentials = nullptr) {
        kv_client* c = client();
        const int32_t status = o != nullptr ? kv_server_add_options(c, "127.0.0.1", server->port(), o)
                                            : kv_server_add(c, "127.0.0.1", server->port(), credentials);
        return std::make_pair(status, std::string(kv_last_error(c)));
    };
    EXPECT_EQ(add(nullptr).first, KV_SUCCESS);
    EXPECT_NE(server->command({"CLIENT", "LIST"}).find("user=envuser"), std::string::npos)
        << "the client did not log in as the environment's user";

    {
        const ScopedEnv wrong({{"KELVANE_PASSWORD", "not-envpass"}});
        const auto [status, why] = add(nullptr);
        EXPECT_EQ(status, KV_AUTH_FAILED);
        EXPECT_NE(why.find("WRONGPASS"), std::string::npos) << why;
        EXPECT_EQ(why.find("not-envpass"), std::string::npos) << why;
        // The options' password wins; the user still comes from the environment.
        kv_server_options o = KV_SERVER_OPTIONS_INIT;
        o.password = "envpass";
        EXPECT_EQ(add(&o).first, KV_SUCCESS);
    }
    // kv_credentials are the whole of user and password: nothing of the environment's joins them.
    const kv_credentials wrong{"envuser", "other"};
    EXPECT_EQ(add(nullptr, &wrong).first, KV_AUTH_FAILED);
    const kv_credentials right{"envuser", "envpass"};
    EXPECT_EQ(add(nullptr, &right).first, KV_SUCCESS);
    // The options' mode wins over the environment's: plaintext at the TLS port.
    kv_server_options plain = KV_SERVER_OPTIONS_INIT;
    plain.tls_mode = KV_TLS_DISABLE;
    EXPECT_EQ(add(&plain).first, KV_TLS_FAILED);
    // The options' name to check wins too.
    kv_server_options named = KV_SERVER_OPTIONS_INIT;
    named.tls_server_name = "elsewhere.test";
    EXPECT_EQ(add(&named).first, KV_CERT_REJECTED);
}

// A host that begins with '/' is a Unix socket path, the port plays no part, and it stays plaintext whatever the
// environment says; only the caller's own options turn TLS on there.
TEST_F(UnixSocket, SeedIsAPathPlaintextUnlessTheOptionsAskForTls) {
    const TempDir dir;
    ServerOptions o;
    o.unix_socket = dir / "redis.sock";
    RedisServer server(0, o);
    const ScopedEnv env({{"KELVANE_TLS_MODE", "verify-full"}, {"KELVANE_TLS_CA_FILE", ca_.c_str()}});
    kv_client* c = client();
    ASSERT_EQ(kv_server_add(c, o.unix_socket.c_str(), 0, nullptr), KV_SUCCESS) << kv_last_error(c);
    EXPECT_TRUE(round_trip(c));
    EXPECT_EQ(server.command({"ZSCORE", "kv{k}", "m"}), "2.5");
    EXPECT_EQ(kv_server_add(c, o.unix_socket.c_str(), 6379, nullptr), KV_ALREADY_EXISTS);

    kv_client* missing = client();
    const std::string gone = dir / "gone.sock";
    EXPECT_EQ(kv_server_add(missing, gone.c_str(), 0, nullptr), KV_CONNECT_FAILED);
    EXPECT_TRUE(contains(kv_last_error(missing), gone)) << kv_last_error(missing);

    kv_client* asked = client();
    const kv_server_options require = tls(KV_TLS_REQUIRE);
    EXPECT_EQ(kv_server_add_options(asked, o.unix_socket.c_str(), 0, &require), KV_TLS_FAILED);
    const kv_server_options full = tls(KV_TLS_VERIFY_FULL);
    EXPECT_EQ(kv_server_add_options(asked, o.unix_socket.c_str(), 0, &full), KV_BAD_SETTINGS);
    EXPECT_TRUE(contains(kv_last_error(asked), "server name")) << kv_last_error(asked);
}

TEST_F(Texts, StatusNamesLastErrorsAndVersion) {
    const std::vector<std::pair<int32_t, const char*>> names = {
        {KV_SUCCESS, "KV_SUCCESS"}, {KV_NOTFOUND, "KV_NOTFOUND"}, {KV_TIMEOUT, "KV_TIMEOUT"},
        {KV_NOT_PERMITTED, "KV_NOT_PERMITTED"}, {KV_TLS_FAILED, "KV_TLS_FAILED"},
        {KV_CERT_REJECTED, "KV_CERT_REJECTED"}, {KV_BAD_SETTINGS, "KV_BAD_SETTINGS"}, {KV_NO_MASTER, "KV_NO_MASTER"},
        {99, "unknown status"}, {-1, "unknown status"}};
    for (const auto& [status, name] : names) EXPECT_STREQ(kv_status_name(status), name);
    EXPECT_STREQ(kv_version(), KELVANE_VERSION_STRING);
    EXPECT_EQ(KELVANE_VERSION_NUMBER, 10100);
    EXPECT_STRNE(kv_last_error(nullptr), "");

    RedisServer server;
    ASSERT_EQ(server.command({"ACL", "SETUSER", "reader", "on", ">pw", "~*", "+hello", "+function|list"}), "OK");
    kv_client* c = client();
    // A refused connection names the address and the system's reason.
    EXPECT_EQ(kv_server_add(c, "127.0.0.1", RedisServer::free_port(), nullptr), KV_CONNECT_FAILED);
    EXPECT_TRUE(contains(kv_last_error(c), "Connection refused")) << kv_last_error(c);
    // Success and the store's own answers leave no text; a bad argument says so.
    ASSERT_EQ(kv_server_add(c, "127.0.0.1", server.port(), nullptr), KV_SUCCESS);
    EXPECT_STREQ(kv_last_error(c), "");
    EXPECT_EQ(kv_zadd(c, "k", 1, 1, nullptr, 3, 0), KV_INVALID_PARAMETER);
    EXPECT_TRUE(contains(kv_last_error(c), "invalid parameter")) << kv_last_error(c);
    EXPECT_EQ(kv_zrem(c, "k", 1, "m", 1), KV_NOTFOUND);
    EXPECT_STREQ(kv_last_error(c), "");
    // A refusal of the server is its own error line, without the password.
    kv_client* reader = client();
    const kv_credentials credentials{"reader", "pw"};
    ASSERT_EQ(kv_server_add(reader, "127.0.0.1", server.port(), &credentials), KV_SUCCESS);
    EXPECT_EQ(kv_zadd(reader, "k", 1, 1, "m", 1, 0), KV_NOT_PERMITTED);
    EXPECT_TRUE(contains(kv_last_error(reader), "NOPERM")) << kv_last_error(reader);
}

}  // namespace
}  // namespace kelvane_test
