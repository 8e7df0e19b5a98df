// tls_context.h -- what every TLS connection of one store shares: the
// trusted CAs, the client certificate and key, the protocol versions and
// how much of the server's certificate is checked. Built once per seed from
// its settings, so that a file that cannot be used is found out when the
// seed is added, not on the first call.
#ifndef KELVANE_TLS_CONTEXT_H
#define KELVANE_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kelvane {

// How much of the server's certificate is checked (KV_TLS_REQUIRE and up).
enum class TlsCheck : uint8_t { none, chain, chain_and_name };

struct TlsFiles {
    std::string ca_file;    // empty: none
    std::string ca_dir;     // empty: none; with neither, the system's store
    std::string cert_file;  // the client certificate (PEM), empty: none
    std::string key_file;   // its key (PEM); empty: in cert_file
};

class TlsContext {
public:
    // nullptr with *why when a file is missing, unreadable or not what it
    // should be, or the key does not match the certificate.
    static std::shared_ptr<const TlsContext> create(TlsCheck check, const TlsFiles& files,
                                                    std::string* why);

    SSL_CTX* get() const { return ctx_.get(); }
    TlsCheck check() const { return check_; }

private:
    struct CtxFree {
        void operator()(SSL_CTX* c) const noexcept { SSL_CTX_free(c); }
    };
    TlsContext(SSL_CTX* ctx, TlsCheck check) : ctx_(ctx), check_(check) {}

    std::unique_ptr<SSL_CTX, CtxFree> ctx_;
    TlsCheck check_;
};

// The reason of OpenSSL's latest error in words ("wrong version number"),
// and the error queue cleared; fallback when the queue is empty.
std::string openssl_reason(const char* fallback);

}  // namespace kelvane

#endif  // KELVANE_TLS_CONTEXT_H
