// client.cpp -- connecting, reconnecting and keeping the server's function
// library in place.
#include "client.h"

#include <cstring>

namespace kelvane {
namespace {

int32_t load_function_library(Connection& connection) {
    Command load;
    load.borrow("FUNCTION").borrow("LOAD").borrow("REPLACE").borrow(kFunctionLibrary,
                                                                     std::strlen(kFunctionLibrary));
    Reply reply;
    int32_t status = connection.run(load, reply);
    if (status != KV_SUCCESS) return status;
    if (reply->type == REDIS_REPLY_ERROR) {
        // A server without functions (before Redis 7) cannot serve us.
        connection.close();
        return KV_SERVER_ERROR;
    }
    return KV_SUCCESS;
}

bool is_missing_function(const redisReply* reply) {
    static constexpr char kPrefix[] = "ERR Function not found";
    return reply->type == REDIS_REPLY_ERROR &&
           std::strncmp(reply->str, kPrefix, sizeof kPrefix - 1) == 0;
}

}  // namespace

Command function_call(std::string_view op, const ServerKeys& keys) {
    Command command;
    command.borrow("FCALL").own(std::string(kFunctionLibraryName) + "_" + std::string(op));
    command.borrow("2").borrow(keys.main).borrow(keys.values);
    return command;
}

}  // namespace kelvane

using kelvane::Command;
using kelvane::Reply;

int32_t kv_client::connect() {
    if (!server) return KV_NO_SERVER;
    int32_t status = KV_CONNECT_FAILED;
    for (int attempt = 0; attempt < connect_attempts; ++attempt) {
        status = connection.open(*server, timeouts);
        if (status == KV_SUCCESS) status = kelvane::load_function_library(connection);
        // Only a failure to reach the server is worth another attempt.
        if (status != KV_CONNECT_FAILED) break;
    }
    return status;
}

int32_t kv_client::run(Command& command, Reply& reply) {
    reply.reset();
    if (!server) return KV_NO_SERVER;
    if (!connection.is_open() || !connection.peer_alive()) {
        int32_t status = connect();
        if (status != KV_SUCCESS) return status;
    }
    int32_t status = connection.run(command, reply);
    if (status == KV_SUCCESS && kelvane::is_missing_function(reply.get())) {
        // The server lost its functions (FUNCTION FLUSH, or a restart behind
        // a proxy) while we stayed connected. Nothing ran, so loading them
        // and running the call again is safe.
        status = kelvane::load_function_library(connection);
        if (status == KV_SUCCESS) status = connection.run(command, reply);
    }
    return status;
}
