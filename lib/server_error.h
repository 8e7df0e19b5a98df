// server_error.h -- what an error reply from a server means for the call
// that got it: a redirection to follow, a condition to wait out, a missing
// function library, or a final status.
#ifndef KELVANE_SERVER_ERROR_H
#define KELVANE_SERVER_ERROR_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "endpoint.h"

namespace kelvane {

enum class ErrorKind {
    moved,             // MOVED: the slot lives elsewhere; nothing ran
    ask,               // ASK: this one command goes to the importing node
    try_again,         // TRYAGAIN: the slot is in the middle of a migration
    cluster_down,      // CLUSTERDOWN: the slot is not served just now
    read_only,         // READONLY: a former master, now a replica
    busy,              // LOADING or BUSY: the server cannot take commands yet
    function_missing,  // the function library is not loaded (any more)
    out_of_memory,     // OOM: the server is full and refuses writes
    no_permission,     // NOPERM: the user may not run this
    auth,              // NOAUTH, WRONGPASS
    other,
};

struct ServerError {
    ErrorKind kind = ErrorKind::other;
    int slot = -1;                   // moved, ask
    std::optional<Endpoint> target;  // moved, ask (host empty: the node that answered)
};

ServerError classify_error(std::string_view text);

// The status a call ends with when this error is its last word.
int32_t status_of(ErrorKind kind);

}  // namespace kelvane

#endif  // KELVANE_SERVER_ERROR_H
