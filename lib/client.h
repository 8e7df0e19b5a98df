// client.h -- the state behind a kv_client handle: its settings, its memory
// manager, the router that reaches the servers, and the counter its calls
// take their tags from. Any number of threads may use one client at once:
// what belongs to one call (its request, deadline and tag, why it failed)
// lives in the calling thread's CallState (call_state.h), never here.
#ifndef KELVANE_CLIENT_H
#define KELVANE_CLIENT_H

#include <cstddef>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "call_state.h"
#include "deadline.h"
#include "kelvane.h"
#include "range_selection.h"
#include "reply_sink.h"
#include "request.h"
#include "router.h"
#include "values_sizes.h"

namespace kelvane {

// Which way the reads go (KELVANE_READS, read when the client is made): the
// server functions, or native commands (native_reads.h). "auto", the
// default, picks per call what measured faster; an unknown value counts as
// auto.
enum class ReadPath : uint8_t { functions, native, automatic };
ReadPath read_path_from_environment();

}  // namespace kelvane

struct kv_client {
    kv_client(kv_mm* manager, const kelvane::RouterSettings& given, kelvane::ReadPath path)
        : id(next_id()),
          mm(manager),
          reads(path),
          settings(given),
          router(given),
          bound(kelvane::saturated_total(given.connect_attempts, given.connect_timeout,
                                         given.command_timeout)) {}

    // Marks the entry of an exported call. Its deadline starts now, before
    // its command is built: every connection attempt may take its connect
    // timeout, and the command its command timeout.
    void enter() const { kelvane::this_call().deadline = kelvane::Deadline::after(bound); }

    // The request of the call under way on this thread, and its deadline.
    kelvane::Request& request() const { return kelvane::this_call().request; }
    kelvane::Deadline deadline() const { return kelvane::this_call().deadline; }

    // Runs the function call in request, for kelvane key K, and reads its
    // reply into sink. The router's status, KV_SUCCESS once a reply came.
    int32_t run_function(const char* key, std::size_t key_len, kelvane::ReplySink& sink);
    // Runs the native commands in request on the node that serves K.
    int32_t run_command(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
        return run_native(key, key_len, sink, false);
    }
    // Runs them as run_command does, and keeps the connection they went over
    // to this call alone until release_pin(): for commands that leave state
    // on it for the next (a WATCH).
    int32_t run_held(const char* key, std::size_t key_len, kelvane::ReplySink& sink) {
        return run_native(key, key_len, sink, true);
    }
    // Runs them over the connection the last command used, relying on what
    // it left there (Router::run_pinned).
    int32_t run_pinned(kelvane::ReplySink& sink);
    // Lets other calls use the connection run_held() kept.
    void release_pin() { router.release_pin(); }

    // Ends an exported call with status: keeps why it failed, in words, for
    // kv_last_error on this thread, or forgets any earlier failure.
    void finish_call(int32_t status) const;
    // Why this thread's last call on this client failed; "" if it did not.
    const char* last_error() const;

    // Whether reads go on native commands rather than the server functions.
    bool native_reads() const { return reads != kelvane::ReadPath::functions; }
    // Whether a range read of sel takes the server function: always on the
    // functions' path; on auto, a read of a few members with their values,
    // which the function answers in one round trip where native commands
    // take two, unless functions turned out not to run for this client.
    bool uses_function_for(const kelvane::Selection& sel, bool with_values) const;
    // After a function call on the auto path answered status: whether the
    // server would not run it (its access rules, another library under our
    // name, no room to load ours), in which case the read goes native, now
    // and from then on.
    bool functions_refused(int32_t status);

    const uint64_t id;  // never reused: kv_last_error's key
    kv_mm* mm;
    kelvane::ReadPath reads;
    kelvane::RouterSettings settings;
    kelvane::Router router;
    kelvane::Clock::duration bound;  // connect_attempts × connect timeout + command timeout
    kelvane::ValuesSizes values_sizes;  // hints for the range reads with values

private:
    static uint64_t next_id();
    int32_t run_native(const char* key, std::size_t key_len, kelvane::ReplySink& sink, bool hold);
    // A tag no other call of this client used, in the calling thread's call
    // state: the call's reply must carry it back, so that a reply left over
    // from another call is never taken for this one's.
    std::string_view next_tag();

    std::atomic<uint64_t> calls_{0};
    std::atomic<bool> functions_refused_{false};
};

#endif  // KELVANE_CLIENT_H
