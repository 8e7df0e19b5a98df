// client.cpp -- one call's way from the client to the router.
#include "client.h"

#include "server_keys.h"
#include "status_text.h"

int32_t kv_client::run_function(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
    return router.run(request, kelvane::key_slot(key, key_len), sink, true, call_deadline());
}

int32_t kv_client::run_command(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
    return router.run(request, kelvane::key_slot(key, key_len), sink, false, call_deadline());
}

void kv_client::finish_call(int32_t status) {
    if (!kelvane::is_failure(status)) {
        last_error.clear();
    } else {
        const kelvane::Router::Failure& why = router.failure();
        last_error = why.status == status && !why.text.empty() ? why.text : kelvane::status_meaning(status);
    }
    router.forget_failure();
}
