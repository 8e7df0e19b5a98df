// function_library.h -- the server-side function library: its versioned
// name, the names of its functions, and making sure that a node holds
// exactly this library before any of its functions runs there.
//
// The library is named kelvane_<version>, the version being a digest of its
// source, and each function <library>_<operation>. It is loaded with
// FUNCTION LOAD, never REPLACE, and only where it is missing, so clients of
// other versions on the same server keep their own, and a library that
// someone else put under our name is found out instead of run.
#ifndef KELVANE_FUNCTION_LIBRARY_H
#define KELVANE_FUNCTION_LIBRARY_H

#include <cstdint>
#include <string_view>

#include "deadline.h"
#include "node_connection.h"
#include "request.h"

namespace kelvane {

extern const char* const kFunctionLibrary;      // the Lua source
extern const char* const kFunctionLibraryName;  // kelvane_<version>

// Returned by ensure_function_library() when the node turned out to be a
// replica (READONLY): the caller asks the cluster where to go instead.
inline constexpr int32_t kNodeIsReplica = -1;
// Returned when the node cannot take commands yet (LOADING its data after a
// restart, BUSY with a script): the caller waits and tries again.
inline constexpr int32_t kNodeIsBusy = -2;

// Checks that the node holds our library, loading it when it is missing.
// KV_SUCCESS; KV_LIBRARY_MISMATCH when a library of our name holds other
// code or another library already defines one of our function names;
// KV_NOT_PERMITTED, KV_SERVER_FULL, kNodeIsReplica, kNodeIsBusy, or a
// transport status.
int32_t ensure_function_library(NodeConnection& connection, Deadline deadline);

// Starts "FCALL <library>_<op> 2 kv{E} kv{E}:v" for kelvane key K.
Request& start_function_call(Request& request, std::string_view op, const char* key,
                             std::size_t key_len);

}  // namespace kelvane

#endif  // KELVANE_FUNCTION_LIBRARY_H
