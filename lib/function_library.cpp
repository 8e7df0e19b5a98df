// function_library.cpp -- FUNCTION LIST, FUNCTION LOAD, and function names.
#include "function_library.h"

#include <cstring>

#include "kelvane.h"
#include "server_error.h"
#include "server_keys.h"

namespace kelvane {
namespace {

enum class Found { ours, missing, other };

// What FUNCTION LIST says about a library of our name.
Found find_library(const Value& list) {
    for (const Value& library : list.elements) {
        const Value* name = library.field("library_name");
        if (name == nullptr || name->text != kFunctionLibraryName) continue;
        const Value* code = library.field("library_code");
        return code != nullptr && code->text == kFunctionLibrary ? Found::ours : Found::other;
    }
    return Found::missing;
}

int32_t status_of_error(std::string_view error) {
    const ErrorKind kind = classify_error(error).kind;
    if (kind == ErrorKind::read_only) return kNodeIsReplica;
    if (kind == ErrorKind::busy) return kNodeIsBusy;
    return status_of(kind);
}

int32_t list_library(NodeConnection& connection, Deadline deadline, Found* found) {
    Request list;
    list.start().arg("FUNCTION").arg("LIST").arg("LIBRARYNAME").arg(kFunctionLibraryName).arg(
        "WITHCODE");
    ValueReply reply;
    const Exchange done = connection.exchange(list.bytes(), {&reply}, deadline);
    if (done.status != KV_SUCCESS) return done.status;
    if (reply.is_error()) return status_of_error(reply.error());
    if (reply.value().type != Value::Type::array) {
        connection.close();  // not a reply to FUNCTION LIST: the stream is out of step
        return KV_SERVER_ERROR;
    }
    *found = find_library(reply.value());
    return KV_SUCCESS;
}

}  // namespace

int32_t ensure_function_library(NodeConnection& connection, Deadline deadline) {
    Found found = Found::missing;
    int32_t status = list_library(connection, deadline, &found);
    if (status != KV_SUCCESS) return status;
    if (found == Found::other) return KV_LIBRARY_MISMATCH;
    if (found == Found::ours) return KV_SUCCESS;

    Request load;
    load.start().arg("FUNCTION").arg("LOAD").arg(kFunctionLibrary, std::strlen(kFunctionLibrary));
    ValueReply reply;
    const Exchange done = connection.exchange(load.bytes(), {&reply}, deadline);
    if (done.status != KV_SUCCESS) return done.status;
    if (!reply.is_error()) {
        // FUNCTION LOAD answers the name of the library it loaded.
        if (reply.value().type == Value::Type::text && reply.value().text == kFunctionLibraryName) {
            return KV_SUCCESS;
        }
        connection.close();
        return KV_SERVER_ERROR;
    }
    const std::string_view error = reply.error();
    if (error.find("Library '") != std::string_view::npos &&
        error.find("already exists") != std::string_view::npos) {
        // Another client loaded a library of our name since we looked: it is
        // ours only if it holds our code.
        status = list_library(connection, deadline, &found);
        if (status != KV_SUCCESS) return status;
        return found == Found::ours ? KV_SUCCESS : KV_LIBRARY_MISMATCH;
    }
    if (error.find("Function ") != std::string_view::npos &&
        error.find("already exists") != std::string_view::npos) {
        return KV_LIBRARY_MISMATCH;  // a foreign library holds one of our names
    }
    return status_of_error(error);
}

Request& start_function_call(Request& request, std::string_view op, const char* key,
                             std::size_t key_len) {
    request.start().arg("FCALL").arg_joined(kFunctionLibraryName, "_", op).key_count(2);
    request.server_key(key, key_len, "").server_key(key, key_len, kValuesSuffix);
    return request;
}

}  // namespace kelvane
