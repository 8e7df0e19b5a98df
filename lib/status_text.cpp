// status_text.cpp -- the table of statuses.
#include "status_text.h"

#include "kelvane.h"

namespace kelvane {
namespace {

struct StatusText {
    int32_t status;
    const char* name;
    const char* meaning;
};

constexpr StatusText kStatuses[] = {
    {KV_SUCCESS, "KV_SUCCESS", "success"},
    {KV_WRONG_REPLY, "KV_WRONG_REPLY", "the key holds a value of another kind"},
    {KV_ALREADY_EXISTS, "KV_ALREADY_EXISTS", "it exists already"},
    {KV_NOTFOUND, "KV_NOTFOUND", "the key does not exist"},
    {KV_INVALID_PARAMETER, "KV_INVALID_PARAMETER",
     "invalid parameter: a null handle or out-parameter, a bad length, flag combination or port"},
    {KV_NO_SET_KEY, "KV_NO_SET_KEY", "the member is not in the sorted set"},
    {KV_NO_SERVER, "KV_NO_SERVER", "no server registered with kv_server_add"},
    {KV_CONNECT_FAILED, "KV_CONNECT_FAILED", "the server refused or did not answer the connection"},
    {KV_TIMEOUT, "KV_TIMEOUT", "no answer within the command timeout or the call's deadline"},
    {KV_CONNECTION_LOST, "KV_CONNECTION_LOST", "the connection broke while the call was under way"},
    {KV_SERVER_ERROR, "KV_SERVER_ERROR", "the server answered with an error or an unexpected reply"},
    {KV_NO_MEMORY, "KV_NO_MEMORY", "the memory manager could not allocate a result buffer"},
    {KV_AUTH_FAILED, "KV_AUTH_FAILED", "the server rejected the credentials"},
    {KV_SERVER_FULL, "KV_SERVER_FULL", "the server is at its memory limit and refuses writes"},
    {KV_CLUSTER_DOWN, "KV_CLUSTER_DOWN", "the cluster could not serve the key's slot before the deadline"},
    {KV_TRY_AGAIN, "KV_TRY_AGAIN", "the key's slot stayed in the middle of a migration until the deadline"},
    {KV_LIBRARY_MISMATCH, "KV_LIBRARY_MISMATCH",
     "the server holds another library under kelvane's function names"},
    {KV_NOT_PERMITTED, "KV_NOT_PERMITTED", "the server's access rules do not let this user run the call"},
    {KV_TLS_FAILED, "KV_TLS_FAILED", "the TLS handshake failed"},
    {KV_CERT_REJECTED, "KV_CERT_REJECTED", "the server's certificate failed verification"},
    {KV_BAD_SETTINGS, "KV_BAD_SETTINGS", "a setting cannot be used"},
    {KV_NO_MASTER, "KV_NO_MASTER", "the Sentinels named no master that answered as one before the deadline"},
};

const StatusText* find(int32_t status) {
    for (const StatusText& s : kStatuses) {
        if (s.status == status) return &s;
    }
    return nullptr;
}

}  // namespace

const char* status_name(int32_t status) {
    const StatusText* s = find(status);
    return s != nullptr ? s->name : nullptr;
}

const char* status_meaning(int32_t status) {
    const StatusText* s = find(status);
    return s != nullptr ? s->meaning : "unknown status";
}

bool is_failure(int32_t status) {
    return status != KV_SUCCESS && status != KV_NOTFOUND && status != KV_ALREADY_EXISTS &&
           status != KV_NO_SET_KEY && status != KV_WRONG_REPLY;
}

}  // namespace kelvane
