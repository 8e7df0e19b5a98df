// node_connection.cpp -- connecting, greeting, and exchanging commands for
// replies.
#include "node_connection.h"

#include "kelvane.h"
#include "request.h"
#include "secret.h"
#include "server_error.h"

namespace kelvane {

int32_t NodeConnection::open(const Endpoint& endpoint, const NodeSettings& settings,
                             Deadline connect_deadline, Deadline deadline) {
    close();
    const std::string where = describe(endpoint);
    int32_t status = socket_.connect(endpoint.host, endpoint.port, connect_deadline);
    if (status == KV_SUCCESS && settings.tls) {
        // The name the certificate must carry: the one given for the whole
        // store, or the address this node was reached by.
        const std::string& name = !settings.server_name.empty() ? settings.server_name
                                  : is_socket_path(endpoint.host) ? settings.server_name
                                                                  : endpoint.host;
        status = socket_.start_tls(*settings.tls, name, connect_deadline);
    }
    if (status != KV_SUCCESS) {
        failure_ = where + ": " + socket_.failure();
        return status;
    }
    reader_ = make_reader();
    if (!reader_) {
        close();
        failure_ = where + ": out of memory";
        return KV_NO_MEMORY;
    }
    status = greet(settings, deadline);
    if (status != KV_SUCCESS) {
        failure_ = where + ": " + failure_;
        close();
        return status;
    }
    ++sessions_;
    return status;
}

void NodeConnection::close() noexcept {
    socket_.close();
    reader_.reset();
    mode_ = NodeMode::unknown;
}

int32_t NodeConnection::greet(const NodeSettings& settings, Deadline deadline) {
    Request hello;
    const std::string_view password = settings.password();
    // Room for the whole command from the start: a buffer that grew would
    // leave a copy of the password behind in freed memory.
    hello.reserve(64 + (settings.credentials ? settings.credentials->user.size() : 0) + password.size());
    hello.start().arg("HELLO").arg("2");
    if (settings.credentials) hello.arg("AUTH").arg(settings.credentials->user).arg(password);
    ValueReply reply;
    const bool tls = socket_.is_tls();  // a failed exchange closes the socket
    const Exchange done = exchange(hello.bytes(), {&reply}, deadline);
    hello.wipe();
    if (done.status != KV_SUCCESS) {
        // A TLS server drops a plaintext client without a word, and a client
        // whose certificate it wants or does not trust just after the
        // handshake (TLS 1.3), often before its alert can be read.
        if (done.status == KV_CONNECTION_LOST && !tls) {
            failure_ = "the server closed the connection at the greeting: a TLS port? (KELVANE_TLS_MODE)";
            return KV_TLS_FAILED;
        }
        if (done.status == KV_CONNECTION_LOST) {
            failure_ = "the server closed the connection after the TLS handshake: it wants a client "
                       "certificate, or does not trust ours (" + failure_ + ")";
            return KV_TLS_FAILED;
        }
        failure_ = "greeting: " + failure_;
        return done.status;
    }
    if (reply.is_error()) {
        failure_ = "the server refused HELLO: " + std::string(reply.error());
        redact(failure_, password);
        const ErrorKind kind = classify_error(reply.error()).kind;
        return kind == ErrorKind::auth || kind == ErrorKind::no_permission ? KV_AUTH_FAILED
                                                                           : KV_SERVER_ERROR;
    }
    // HELLO answers a map: a flat array of names and values.
    if (reply.value().type != Value::Type::array || reply.value().elements.size() % 2 != 0) {
        failure_ = "the server's answer to HELLO is not a map";
        return KV_SERVER_ERROR;
    }
    const Value* mode = reply.value().field("mode");
    mode_ = mode == nullptr            ? NodeMode::standalone
            : mode->text == "cluster"  ? NodeMode::cluster
            : mode->text == "sentinel" ? NodeMode::sentinel
                                       : NodeMode::standalone;
    return KV_SUCCESS;
}

Exchange NodeConnection::exchange(std::string_view bytes, std::initializer_list<ReplySink*> sinks,
                                  Deadline deadline) {
    for (ReplySink* sink : sinks) sink->reset();
    if (!reader_) return Exchange{KV_CONNECTION_LOST, false};
    int32_t status = socket_.send_all(bytes, deadline);
    const bool sent = status == KV_SUCCESS;
    for (auto sink = sinks.begin(); status == KV_SUCCESS && sink != sinks.end(); ++sink) {
        for (std::size_t r = 0, n = (*sink)->replies(); status == KV_SUCCESS && r < n; ++r) {
            status = read_reply(**sink, deadline);
        }
        if (status == KV_SUCCESS) (*sink)->replies_read();
        if (status == KV_SUCCESS && (*sink)->tag_follows()) {
            (*sink)->start_tag_reply();
            status = read_reply(**sink, deadline);
        }
    }
    // Bytes after the last reply answer nothing that was asked: the stream
    // is out of step, and the replies just read may be some other
    // command's. Neither they nor the connection are used.
    if (status == KV_SUCCESS && reader_->pos < reader_->len) {
        status = KV_SERVER_ERROR;
        failure_ = "the server sent more than the replies asked for";
    }
    if (status != KV_SUCCESS) {
        // A TLS stream that breaks once the greeting went through is a lost
        // connection like any other.
        if (status == KV_TLS_FAILED && mode_ != NodeMode::unknown) status = KV_CONNECTION_LOST;
        if (status == KV_TIMEOUT || status == KV_CONNECTION_LOST || status == KV_TLS_FAILED) {
            failure_ = socket_.failure();
        }
        close();
        return Exchange{status, sent};
    }
    last_alive_ = Clock::now();
    return Exchange{KV_SUCCESS, true};
}

int32_t NodeConnection::read_reply(ReplySink& sink, Deadline deadline) {
    set_sink(reader_.get(), &sink);
    for (;;) {
        void* reply = nullptr;
        // A reply that does not fit its command, or a protocol error, leaves
        // the stream out of step: nothing after it can be trusted.
        if (redisReaderGetReply(reader_.get(), &reply) != REDIS_OK) {
            failure_ = "the server's reply does not fit its command, or breaks the protocol";
            return sink.failure() != KV_SUCCESS ? sink.failure() : KV_SERVER_ERROR;
        }
        if (reply != nullptr) return KV_SUCCESS;
        std::size_t received = 0;
        const int32_t status = socket_.receive(buffer_.data(), buffer_.size(), deadline, &received);
        if (status != KV_SUCCESS) return status;
        if (redisReaderFeed(reader_.get(), buffer_.data(), received) != REDIS_OK) {
            failure_ = "out of memory for the reply";
            return KV_NO_MEMORY;
        }
    }
}

}  // namespace kelvane
