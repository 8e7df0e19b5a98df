// client.cpp -- one call's way from the client to the router, with its tag.
#include "client.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "server_keys.h"
#include "status_text.h"

kelvane::ReadPath kelvane::read_path_from_environment() {
    // secure_getenv: a set-user-ID program takes no settings from its
    // caller's environment.
    const char* text = secure_getenv("KELVANE_READS");
    if (text == nullptr) return ReadPath::automatic;
    if (std::strcmp(text, "functions") == 0) return ReadPath::functions;
    if (std::strcmp(text, "native") == 0) return ReadPath::native;
    return ReadPath::automatic;
}

std::string_view kv_client::next_tag() {
    const char* end = std::to_chars(tag_, tag_ + sizeof tag_, ++calls_).ptr;
    return std::string_view(tag_, static_cast<std::size_t>(end - tag_));
}

int32_t kv_client::run_function(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
    // Every function takes the tag as its last argument and answers it as
    // the last element of its reply.
    const std::string_view tag = next_tag();
    request.arg(tag);
    sink.expect_tag(tag, kelvane::TagPlace::last_element);
    return router.run(request, kelvane::key_slot(key, key_len), sink, true, deadline);
}

int32_t kv_client::run_command(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
    const std::string_view tag = next_tag();
    request.then_ping(tag);
    sink.expect_tag(tag, kelvane::TagPlace::own_reply);
    return router.run(request, kelvane::key_slot(key, key_len), sink, false, deadline);
}

int32_t kv_client::run_pinned(kelvane::ReplySink& sink) {
    const std::string_view tag = next_tag();
    request.then_ping(tag);
    sink.expect_tag(tag, kelvane::TagPlace::own_reply);
    return router.run_pinned(request, sink, deadline);
}

bool kv_client::uses_function_for(const kelvane::Selection& sel, bool with_values) const {
    if (reads == kelvane::ReadPath::functions) return true;
    if (reads == kelvane::ReadPath::native || !with_values || functions_refused_) return false;
    // How many members the read can hold at most, where its arguments say.
    constexpr long long kFew = 64;
    long long most = kFew + 1;
    if (!sel.by_score && (sel.start >= 0) == (sel.stop >= 0)) {
        most = std::max<long long>(0, static_cast<long long>(sel.stop) - sel.start + 1);
    } else if (sel.by_score && sel.limited && sel.count >= 0) {
        most = sel.count;
    }
    return most <= kFew;
}

bool kv_client::functions_refused(int32_t status) {
    if (reads != kelvane::ReadPath::automatic) return false;
    if (status != KV_NOT_PERMITTED && status != KV_LIBRARY_MISMATCH && status != KV_SERVER_FULL) return false;
    functions_refused_ = true;
    return true;
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
