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

uint64_t kv_client::next_id() {
    static std::atomic<uint64_t> clients{0};
    return clients.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::string_view kv_client::next_tag() {
    kelvane::CallState& call = kelvane::this_call();
    const uint64_t n = calls_.fetch_add(1, std::memory_order_relaxed) + 1;
    const char* end = std::to_chars(call.tag, call.tag + sizeof call.tag, n).ptr;
    call.tag_len = static_cast<std::size_t>(end - call.tag);
    return call.tag_text();
}

int32_t kv_client::run_function(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
    // Every function takes the tag as its last argument and answers it as
    // the last element of its reply.
    const std::string_view tag = next_tag();
    kelvane::CallState& call = kelvane::this_call();
    call.request.arg(tag);
    sink.expect_tag(tag, kelvane::TagPlace::last_element);
    return router.run(call.request, kelvane::key_slot(key, key_len), sink, true, call.deadline);
}

int32_t kv_client::run_native(const char* key, std::size_t key_len, kelvane::ReplySink& sink, bool hold) {
    const std::string_view tag = next_tag();
    kelvane::CallState& call = kelvane::this_call();
    call.request.then_ping(tag);
    sink.expect_tag(tag, kelvane::TagPlace::own_reply);
    return router.run(call.request, kelvane::key_slot(key, key_len), sink, false, call.deadline, hold);
}

int32_t kv_client::run_pinned(kelvane::ReplySink& sink) {
    const std::string_view tag = next_tag();
    kelvane::CallState& call = kelvane::this_call();
    call.request.then_ping(tag);
    sink.expect_tag(tag, kelvane::TagPlace::own_reply);
    return router.run_pinned(call.request, sink, call.deadline);
}

bool kv_client::uses_function_for(const kelvane::Selection& sel, bool with_values) const {
    if (reads == kelvane::ReadPath::functions) return true;
    if (reads == kelvane::ReadPath::native || !with_values ||
        functions_refused_.load(std::memory_order_relaxed)) {
        return false;
    }
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
    functions_refused_.store(true, std::memory_order_relaxed);
    return true;
}

void kv_client::finish_call(int32_t status) const {
    kelvane::CallState& call = kelvane::this_call();
    kelvane::LastErrors& errors = kelvane::LastErrors::of_this_thread();
    if (!kelvane::is_failure(status)) {
        errors.clear(id);
    } else {
        const kelvane::Failure& why = call.failure;
        errors.set(id, why.status == status && !why.text.empty() ? std::string_view(why.text)
                                                                 : kelvane::status_meaning(status));
    }
    call.forget_failure();
}

const char* kv_client::last_error() const { return kelvane::LastErrors::of_this_thread().get(id); }
