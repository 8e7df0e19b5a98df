// client.h -- the state behind a kv_client handle and the one path every
// operation takes to the server.
#ifndef KELVANE_CLIENT_H
#define KELVANE_CLIENT_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "command.h"
#include "connection.h"
#include "kelvane.h"
#include "server_keys.h"

struct kv_client {
    kv_mm* mm = nullptr;
    kelvane::Timeouts timeouts{};
    int connect_attempts = 1;
    std::optional<kelvane::Endpoint> server;
    kelvane::Connection connection;

    // Runs one command on the registered server, connecting first when
    // there is no live connection. KV_SUCCESS means a reply arrived (which
    // may still be an error reply); any other status is a transport failure.
    int32_t run(kelvane::Command& command, kelvane::Reply& reply);

    // Connects now: what kv_server_add reports.
    int32_t connect();
};

namespace kelvane {

// The start of a call of the server's kelvane function for operation op
// ("zadd") on key: FCALL <library>_<op> 2 <main key> <values key>. keys must
// outlive the command.
Command function_call(std::string_view op, const ServerKeys& keys);

// The source of the server-side function library, and its versioned name
// (kelvane_<version>), which prefixes every function in it.
extern const char* const kFunctionLibrary;
extern const char* const kFunctionLibraryName;

}  // namespace kelvane

#endif  // KELVANE_CLIENT_H
