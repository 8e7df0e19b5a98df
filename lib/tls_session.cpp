// tls_session.cpp -- the handshake, the certificate check and encrypted
// exchanges over a non-blocking socket.
#include "tls_session.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "kelvane.h"

namespace kelvane {
namespace {

// ---- the socket BIO: recv and send(MSG_NOSIGNAL) on a non-blocking fd ----

int fd_of(BIO* b) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(b))); }

int bio_write(BIO* b, const char* data, int len) {
    BIO_clear_retry_flags(b);
    const ssize_t n = ::send(fd_of(b), data, static_cast<std::size_t>(len), MSG_NOSIGNAL);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_write(b);
    return static_cast<int>(n);
}

int bio_read(BIO* b, char* data, int len) {
    BIO_clear_retry_flags(b);
    const ssize_t n = ::recv(fd_of(b), data, static_cast<std::size_t>(len), 0);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) BIO_set_retry_read(b);
    return static_cast<int>(n);
}

long bio_ctrl(BIO*, int cmd, long, void*) { return cmd == BIO_CTRL_FLUSH ? 1 : 0; }

int bio_create(BIO* b) {
    BIO_set_init(b, 1);
    return 1;
}

const BIO_METHOD* socket_method() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kelvane socket");
        if (m != nullptr) {
            BIO_meth_set_write(m, bio_write);
            BIO_meth_set_read(m, bio_read);
            BIO_meth_set_ctrl(m, bio_ctrl);
            BIO_meth_set_create(m, bio_create);
        }
        return m;
    }();
    return method;
}

bool is_ip_address(const std::string& name) {
    unsigned char buf[sizeof(in6_addr)];
    return inet_pton(AF_INET, name.c_str(), buf) == 1 || inet_pton(AF_INET6, name.c_str(), buf) == 1;
}

// Waits until fd is ready for events or the deadline passes.
bool wait_for(int fd, short events, Deadline deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline.remaining()).count();
        if (left <= 0) return false;
        pollfd p{fd, events, 0};
        const int n = ::poll(&p, 1, left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left));
        if (n > 0) return true;
        if (n < 0 && errno != EINTR) return false;
    }
}

}  // namespace

template <class Op>
int TlsSession::run(Op op, Deadline deadline, int* ssl_error) {
    for (;;) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ERR_clear_error();  // the error queue is the thread's own
            const int r = op();
            if (r > 0) return r;
            *ssl_error = SSL_get_error(ssl_.get(), r);
        }
        short events = 0;
        if (*ssl_error == SSL_ERROR_WANT_READ) events = POLLIN;
        if (*ssl_error == SSL_ERROR_WANT_WRITE) events = POLLOUT;
        if (events == 0) return 0;
        if (!wait_for(fd_, events, deadline)) {
            *ssl_error = SSL_ERROR_WANT_READ;  // still waiting: the deadline passed
            return 0;
        }
    }
}

int32_t TlsSession::start(int fd, const TlsContext& context, const std::string& name,
                          Deadline deadline, std::unique_ptr<TlsSession>* out, std::string* why) {
    SSL* raw = SSL_new(context.get());
    BIO* bio = socket_method() != nullptr ? BIO_new(socket_method()) : nullptr;
    if (raw == nullptr || bio == nullptr) {
        SSL_free(raw);
        BIO_free(bio);
        *why = "cannot set up TLS: " + openssl_reason("out of memory");
        return KV_NO_MEMORY;
    }
    std::unique_ptr<TlsSession> session(new TlsSession(raw, fd));
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
    SSL_set_bio(raw, bio, bio);
    const bool ip = is_ip_address(name);
    // SNI carries host names only; an IP address is never sent as one.
    if (!name.empty() && !ip) SSL_set_tlsext_host_name(raw, name.c_str());
    if (context.check() == TlsCheck::chain_and_name) {
        X509_VERIFY_PARAM* param = SSL_get0_param(raw);
        X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        const int set = ip ? X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str())
                           : X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size());
        if (name.empty() || set != 1) {
            *why = "no name to check the server's certificate against";
            return KV_BAD_SETTINGS;
        }
    }
    int error = 0;
    if (session->run([&] { return SSL_connect(raw); }, deadline, &error) <= 0) {
        const long verified = SSL_get_verify_result(raw);
        if (error == SSL_ERROR_SSL && verified != X509_V_OK) {
            *why = std::string("the server's certificate was rejected: ") +
                   X509_verify_cert_error_string(verified);
            ERR_clear_error();
            return KV_CERT_REJECTED;
        }
        if (deadline.passed()) {
            *why = "no answer to the TLS handshake within the connect timeout: the server does not "
                   "speak TLS there, or does not answer";
            return KV_TLS_FAILED;
        }
        return session->failure(error, "the TLS handshake failed", why);
    }
    *out = std::move(session);
    return KV_SUCCESS;
}

int32_t TlsSession::failure(int ssl_error, const char* doing, std::string* why) const {
    if (ssl_error == SSL_ERROR_ZERO_RETURN ||
        (ssl_error == SSL_ERROR_SYSCALL && ERR_peek_last_error() == 0)) {
        *why = std::string(doing) + ": the server closed the connection" +
               (errno != 0 && ssl_error == SSL_ERROR_SYSCALL ? std::string(" (") + std::strerror(errno) + ")"
                                                            : std::string());
        return KV_CONNECTION_LOST;
    }
    *why = std::string(doing) + ": " + openssl_reason("protocol error");
    return KV_TLS_FAILED;
}

int32_t TlsSession::send_all(std::string_view bytes, Deadline deadline, std::size_t* written,
                             std::string* why) {
    std::size_t& done = *written;
    done = 0;
    while (done < bytes.size()) {
        const int chunk = static_cast<int>(std::min<std::size_t>(bytes.size() - done, 1 << 30));
        int error = 0;
        const int n = run([&] { return SSL_write(ssl_.get(), bytes.data() + done, chunk); }, deadline, &error);
        if (n <= 0) {
            if (deadline.passed()) {
                *why = "could not send within the deadline";
                return KV_TIMEOUT;
            }
            return failure(error, "sending over TLS", why);
        }
        done += static_cast<std::size_t>(n);
    }
    return KV_SUCCESS;
}

int32_t TlsSession::receive(char* buffer, std::size_t capacity, Deadline deadline,
                            std::size_t* received, std::string* why) {
    *received = 0;
    // A reply is rarely there the moment its command has gone: wait first
    // rather than pay for a read that finds nothing.
    if (!has_pending() && !wait_for(fd_, POLLIN, deadline)) {
        *why = "no reply within the deadline";
        return KV_TIMEOUT;
    }
    const int chunk = static_cast<int>(std::min<std::size_t>(capacity, 1 << 30));
    int error = 0;
    const int n = run([&] { return SSL_read(ssl_.get(), buffer, chunk); }, deadline, &error);
    if (n > 0) {
        *received = static_cast<std::size_t>(n);
        return KV_SUCCESS;
    }
    if (deadline.passed()) {
        *why = "no reply within the deadline";
        return KV_TIMEOUT;
    }
    return failure(error, "receiving over TLS", why);
}

}  // namespace kelvane
