// client.cpp -- one call's way from the client to the router.
#include "client.h"

#include "server_keys.h"

int32_t kv_client::run_function(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
    return router.run(request, kelvane::key_slot(key, key_len), sink, true, call_deadline());
}

int32_t kv_client::run_command(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
    return router.run(request, kelvane::key_slot(key, key_len), sink, false, call_deadline());
}
