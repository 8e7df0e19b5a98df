// node_connection.cpp -- connecting, greeting, and exchanging commands for
// replies.
#include "node_connection.h"

#include "call_state.h"
#include "kelvane.h"
#include "request.h"
#include "secret.h"
#include "server_error.h"

namespace kelvane {

int32_t NodeConnection::open(const Endpoint& endpoint, const NodeSettings& settings,
                             Deadline connect_deadline, Deadline deadline) {
    refused_ = false;
    mode_.store(NodeMode::unknown, std::memory_order_release);
    const std::string where = describe(endpoint);
    if (!pipeline_.wait_closed(connect_deadline)) {
        failure_ = where + ": the old connection was still in use at the deadline";
        return KV_CONNECT_FAILED;
    }
    Socket socket;
    int32_t status = socket.connect(endpoint.host, endpoint.port, connect_deadline);
    refused_ = socket.refused();
    if (status == KV_SUCCESS && settings.tls) {
        // The name the certificate must carry: the one given for the whole
        // store, or the address this node was reached by.
        const std::string& name = !settings.server_name.empty() ? settings.server_name
                                  : is_socket_path(endpoint.host) ? settings.server_name
                                                                  : endpoint.host;
        status = socket.start_tls(*settings.tls, name, connect_deadline);
    }
    if (status != KV_SUCCESS) {
        failure_ = where + ": " + socket.failure();
        return status;
    }
    Reader reader = make_reader();
    if (!reader) {
        failure_ = where + ": out of memory";
        return KV_NO_MEMORY;
    }
    pipeline_.start(std::move(socket), std::move(reader));
    status = greet(settings, deadline);
    if (status == KV_TLS_FAILED && !settings.tls) {
        // A plaintext greeting dropped without a word is what a TLS port
        // does, and also what a server that is going away does. One that
        // no longer listens is the latter.
        Socket probe;
        if (probe.connect(endpoint.host, endpoint.port, connect_deadline) != KV_SUCCESS && probe.refused()) {
            failure_ = "the server closed the connection at the greeting and no longer listens";
            refused_ = true;
            status = KV_CONNECT_FAILED;
        }
    }
    if (status != KV_SUCCESS) {
        failure_ = where + ": " + failure_;
        close();
        mode_.store(NodeMode::unknown, std::memory_order_release);
        return status;
    }
    sessions_.fetch_add(1, std::memory_order_acq_rel);
    pipeline_.ready();
    return status;
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
    const bool tls = pipeline_.is_tls();  // a failed exchange closes the socket
    const Exchange done = exchange_as(hello.bytes(), {&reply}, deadline, false, true);
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
                       "certificate, or does not trust ours (" + done.why + ")";
            return KV_TLS_FAILED;
        }
        failure_ = "greeting: " + done.why;
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
    mode_.store(mode == nullptr            ? NodeMode::standalone
                : mode->text == "cluster"  ? NodeMode::cluster
                : mode->text == "sentinel" ? NodeMode::sentinel
                                           : NodeMode::standalone,
                std::memory_order_release);
    return KV_SUCCESS;
}

Exchange NodeConnection::exchange(std::string_view bytes, std::initializer_list<ReplySink*> sinks,
                                  Deadline deadline, bool hold) {
    return exchange_as(bytes, sinks, deadline, hold, false);
}

Exchange NodeConnection::exchange_as(std::string_view bytes, std::initializer_list<ReplySink*> sinks,
                                     Deadline deadline, bool hold, bool opener) {
    Exchange done = pipeline_.exchange(bytes, sinks, deadline, &this_call(), hold, opener);
    // A TLS stream that breaks once the greeting went through is a lost
    // connection like any other.
    if (done.status == KV_TLS_FAILED && !opener) done.status = KV_CONNECTION_LOST;
    return done;
}

void NodeConnection::release() { pipeline_.release(&this_call()); }

}  // namespace kelvane
