// api_common.h -- what every exported operation does at its edge: check its
// arguments, keep exceptions from crossing into C, turn a time-to-live into
// function arguments, and run its function.
#ifndef KELVANE_API_COMMON_H
#define KELVANE_API_COMMON_H

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include "client.h"
#include "function_library.h"
#include "kelvane.h"
#include "point_reply.h"
#include "request.h"

namespace kelvane {

// Runs the body of an exported function. Nothing may unwind through the C
// interface: running out of memory becomes KV_NO_MEMORY, anything else a
// server error.
template <class Body>
int32_t guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return KV_NO_MEMORY;
    } catch (...) {
        return KV_SERVER_ERROR;
    }
}

// The same for a call of client (which may be NULL), whose deadline starts
// here, before its arguments are checked and its command is built; keeps why
// the call failed, for kv_last_error.
template <class Body>
int32_t guarded(kv_client* client, Body&& body) noexcept {
    if (client != nullptr) client->enter();
    const int32_t status = guarded(std::forward<Body>(body));
    if (client != nullptr) client->finish_call(status);
    return status;
}

// A byte string may be null only when it is empty.
inline bool bytes_ok(const void* p, std::size_t len) { return p != nullptr || len == 0; }

inline bool key_ok(const kv_client* client, const char* key, std::size_t key_len) {
    return client != nullptr && bytes_ok(key, key_len);
}

// The store cannot order NaN.
inline bool score_ok(double d) { return !std::isnan(d); }

inline bool ttl_ok(int32_t ttl) { return ttl >= 0; }

// The seconds and the commit marker, as the write functions take them.
inline Request& add_ttl(Request& request, int32_t ttl) {
    request.integer(ttl & ~KV_TTL_COMMIT_BIT);
    return request.flag((ttl & KV_TTL_COMMIT_BIT) != 0);
}

// Starts the client's request as a call of the function for op on key K.
inline Request& function_call(kv_client* client, std::string_view op, const char* key,
                              std::size_t key_len) {
    return start_function_call(client->request(), op, key, key_len);
}

// Runs the function call in the client's request and returns the function's
// status, or the status that kept it from answering.
inline int32_t call_function(kv_client* client, const char* key, std::size_t key_len,
                             PointReply& reply) {
    const int32_t status = client->run_function(key, key_len, reply);
    return status != KV_SUCCESS ? status : reply.function_status();
}

}  // namespace kelvane

#endif  // KELVANE_API_COMMON_H
