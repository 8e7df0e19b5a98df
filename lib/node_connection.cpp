// node_connection.cpp -- connecting, greeting, and exchanging commands for
// replies.
#include "node_connection.h"

#include "kelvane.h"
#include "request.h"
#include "server_error.h"

namespace kelvane {

int32_t NodeConnection::open(const Endpoint& endpoint,
                             const std::optional<Credentials>& credentials,
                             Deadline connect_deadline, Deadline deadline) {
    close();
    int32_t status = socket_.connect(endpoint.host, endpoint.port, connect_deadline);
    if (status != KV_SUCCESS) return status;
    reader_ = make_reader();
    if (!reader_) {
        close();
        return KV_NO_MEMORY;
    }
    status = greet(credentials, deadline);
    if (status != KV_SUCCESS) close();
    return status;
}

void NodeConnection::close() noexcept {
    socket_.close();
    reader_.reset();
    mode_ = NodeMode::unknown;
}

int32_t NodeConnection::greet(const std::optional<Credentials>& credentials, Deadline deadline) {
    Request hello;
    hello.start().arg("HELLO").arg("2");
    if (credentials) hello.arg("AUTH").arg(credentials->user).arg(credentials->password);
    ValueReply reply;
    const Exchange done = exchange(hello.bytes(), {&reply}, deadline);
    if (done.status != KV_SUCCESS) return done.status;
    if (reply.is_error()) {
        const ErrorKind kind = classify_error(reply.error()).kind;
        return kind == ErrorKind::auth || kind == ErrorKind::no_permission ? KV_AUTH_FAILED
                                                                           : KV_SERVER_ERROR;
    }
    // HELLO answers a map: a flat array of names and values.
    if (reply.value().type != Value::Type::array || reply.value().elements.size() % 2 != 0) {
        return KV_SERVER_ERROR;
    }
    const Value* mode = reply.value().field("mode");
    mode_ = mode != nullptr && mode->text == "cluster" ? NodeMode::cluster : NodeMode::standalone;
    return KV_SUCCESS;
}

Exchange NodeConnection::exchange(std::string_view bytes, std::initializer_list<ReplySink*> sinks,
                                  Deadline deadline) {
    for (ReplySink* sink : sinks) sink->reset();
    if (!reader_) return Exchange{KV_CONNECTION_LOST, false};
    int32_t status = socket_.send_all(bytes, deadline);
    if (status != KV_SUCCESS) {
        close();
        return Exchange{status, false};
    }
    for (ReplySink* sink : sinks) {
        status = read_reply(*sink, deadline);
        if (status == KV_SUCCESS && sink->tag_follows()) {
            sink->start_tag_reply();
            status = read_reply(*sink, deadline);
        }
        if (status != KV_SUCCESS) {
            close();
            return Exchange{status, true};
        }
    }
    // Bytes after the last reply answer nothing that was asked: the stream
    // is out of step, and the replies just read may be some other
    // command's. Neither they nor the connection are used.
    if (reader_->pos < reader_->len) {
        close();
        return Exchange{KV_SERVER_ERROR, true};
    }
    last_reply_ = Clock::now();
    return Exchange{KV_SUCCESS, true};
}

int32_t NodeConnection::read_reply(ReplySink& sink, Deadline deadline) {
    set_sink(reader_.get(), &sink);
    for (;;) {
        void* reply = nullptr;
        // A reply that does not fit its command, or a protocol error, leaves
        // the stream out of step: nothing after it can be trusted.
        if (redisReaderGetReply(reader_.get(), &reply) != REDIS_OK) {
            return sink.failure() != KV_SUCCESS ? sink.failure() : KV_SERVER_ERROR;
        }
        if (reply != nullptr) return KV_SUCCESS;
        std::size_t received = 0;
        const int32_t status = socket_.receive(buffer_.data(), buffer_.size(), deadline, &received);
        if (status != KV_SUCCESS) return status;
        if (redisReaderFeed(reader_.get(), buffer_.data(), received) != REDIS_OK) return KV_NO_MEMORY;
    }
}

}  // namespace kelvane
