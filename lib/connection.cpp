// connection.cpp -- connecting, sending and receiving over hiredis.
#include "connection.h"

#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "kelvane.h"

namespace kelvane {
namespace {

// A write to a socket the server has closed raises SIGPIPE, whose default
// action ends the process. A library may not change the process's signal
// dispositions, so it blocks SIGPIPE in the calling thread for the length of
// a command and swallows one that the command itself raised.
class SigpipeGuard {
public:
    SigpipeGuard() {
        sigset_t pipe_only;
        sigemptyset(&pipe_only);
        sigaddset(&pipe_only, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_only, &old_mask_);
    }
    ~SigpipeGuard() {
        if (!was_pending_) {
            sigset_t pending;
            sigpending(&pending);
            if (sigismember(&pending, SIGPIPE) == 1) {
                sigset_t pipe_only;
                sigemptyset(&pipe_only);
                sigaddset(&pipe_only, SIGPIPE);
                const timespec no_wait{0, 0};
                sigtimedwait(&pipe_only, nullptr, &no_wait);
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

private:
    sigset_t old_mask_;
    bool was_pending_ = false;
};

int32_t transport_status(const redisContext* c, int saved_errno) {
    switch (c->err) {
        case REDIS_ERR_IO:
            // SO_RCVTIMEO expiring is how a blocking hiredis read times out.
            if (saved_errno == EAGAIN || saved_errno == EWOULDBLOCK ||
                std::strcmp(c->errstr, std::strerror(EAGAIN)) == 0) {
                return KV_TIMEOUT;
            }
            return KV_CONNECTION_LOST;
        case REDIS_ERR_EOF:
            return KV_CONNECTION_LOST;
        case REDIS_ERR_OOM:
            return KV_NO_MEMORY;
        default:
            return KV_SERVER_ERROR;
    }
}

}  // namespace

int32_t Connection::open(const Endpoint& endpoint, const Timeouts& timeouts) {
    close();
    ctx_.reset(redisConnectWithTimeout(endpoint.host.c_str(), endpoint.port, timeouts.connect));
    if (!ctx_) return KV_NO_MEMORY;
    if (ctx_->err != 0) {
        close();
        return KV_CONNECT_FAILED;
    }
    if (redisSetTimeout(ctx_.get(), timeouts.command) != REDIS_OK) {
        close();
        return KV_CONNECT_FAILED;
    }
    redisEnableKeepAlive(ctx_.get());
    if (endpoint.password) {
        Command auth;
        auth.borrow("AUTH");
        if (endpoint.user) auth.borrow(*endpoint.user);
        auth.borrow(*endpoint.password);
        Reply reply;
        int32_t status = run(auth, reply);
        if (status != KV_SUCCESS) return status;
        if (reply->type == REDIS_REPLY_ERROR) {
            close();
            return KV_AUTH_FAILED;
        }
    }
    return KV_SUCCESS;
}

bool Connection::peer_alive() const {
    if (!ctx_) return false;
    char byte;
    ssize_t n = recv(ctx_->fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n == 0) return false;  // orderly shutdown by the server
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    // Bytes nobody asked for: the stream is out of step with our requests.
    return false;
}

int32_t Connection::run(Command& command, Reply& reply) {
    reply.reset();
    if (!ctx_) return KV_CONNECTION_LOST;
    SigpipeGuard no_sigpipe;
    void* raw = redisCommandArgv(ctx_.get(), command.argc(), command.argv(), command.argv_len());
    int saved_errno = errno;
    if (raw == nullptr) {
        int32_t status = transport_status(ctx_.get(), saved_errno);
        close();
        return status;
    }
    reply.reset(static_cast<redisReply*>(raw));
    return KV_SUCCESS;
}

}  // namespace kelvane
