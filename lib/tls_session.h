// tls_session.h -- TLS on one connected socket: the handshake, with the
// server's certificate checked as the context says, and encrypted sends
// and receives, each wait bounded by a deadline.
//
// The socket is non-blocking and every wait is a poll() until the deadline,
// so a handshake or reply that stalls or trickles costs no more than the
// deadline allows. OpenSSL reaches the socket through a small BIO of our
// own that writes with MSG_NOSIGNAL: the library never raises SIGPIPE.
#ifndef KELVANE_TLS_SESSION_H
#define KELVANE_TLS_SESSION_H

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "deadline.h"
#include "tls_context.h"

namespace kelvane {

class TlsSession {
public:
    // Handshakes on fd (connected, non-blocking, not owned), checking the
    // certificate against name (a host name or an IP address; empty: only
    // the chain). KV_SUCCESS; KV_CERT_REJECTED when the certificate fails
    // the check; KV_TLS_FAILED for any other failure, a handshake without
    // an answer by the deadline included. *why says what went wrong.
    static int32_t start(int fd, const TlsContext& context, const std::string& name,
                         Deadline deadline, std::unique_ptr<TlsSession>* out, std::string* why);

    // As Socket::send_all and Socket::receive. A broken TLS stream answers
    // KV_TLS_FAILED (the server refused our certificate, for one). One
    // thread may send while another receives: OpenSSL's session is used by
    // one of them at a time, under a lock held around each non-blocking SSL
    // call and never across a wait.
    int32_t send_all(std::string_view bytes, Deadline deadline, std::size_t* written, std::string* why);
    int32_t receive(char* buffer, std::size_t capacity, Deadline deadline, std::size_t* received,
                    std::string* why);
    // Bytes OpenSSL has read from the socket and not handed out yet.
    bool has_pending() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return SSL_has_pending(ssl_.get()) == 1;
    }

private:
    struct SslFree {
        void operator()(SSL* s) const noexcept { SSL_free(s); }
    };
    TlsSession(SSL* ssl, int fd) : ssl_(ssl), fd_(fd) {}
    // Repeats op (an SSL_ call) until it succeeds, fails or the deadline
    // passes, waiting for the socket as OpenSSL asks. op's result, or 0.
    template <class Op>
    int run(Op op, Deadline deadline, int* ssl_error);
    int32_t failure(int ssl_error, const char* doing, std::string* why) const;

    mutable std::mutex mutex_;  // around every SSL_ call on ssl_
    std::unique_ptr<SSL, SslFree> ssl_;
    int fd_;
};

}  // namespace kelvane

#endif  // KELVANE_TLS_SESSION_H
