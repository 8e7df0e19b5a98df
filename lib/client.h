// client.h -- the state behind a kv_client handle: its settings, its memory
// manager, the router that reaches the servers, the request buffer that
// every call writes its command into, the deadline and tag of the call
// under way, and why its last call failed.
#ifndef KELVANE_CLIENT_H
#define KELVANE_CLIENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

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
        : mm(manager),
          reads(path),
          settings(given),
          router(given),
          bound(kelvane::saturated_total(given.connect_attempts, given.connect_timeout,
                                         given.command_timeout)) {}

    // Marks the entry of an exported call. Its deadline starts now, before
    // its command is built: every connection attempt may take its connect
    // timeout, and the command its command timeout.
    void enter() { deadline = kelvane::Deadline::after(bound); }

    // Runs the function call in request, for kelvane key K, and reads its
    // reply into sink. The router's status, KV_SUCCESS once a reply came.
    int32_t run_function(const char* key, std::size_t key_len, kelvane::ReplySink& sink);
    // Runs the native commands in request on the node that serves K.
    int32_t run_command(const char* key, std::size_t key_len, kelvane::ReplySink& sink);
    // Runs them over the connection the last command used, relying on what
    // it left there (Router::run_pinned).
    int32_t run_pinned(kelvane::ReplySink& sink);

    // Ends an exported call with status: keeps why it failed, in words, for
    // kv_last_error, or forgets any earlier failure.
    void finish_call(int32_t status);

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

    kv_mm* mm;
    kelvane::ReadPath reads;
    kelvane::RouterSettings settings;
    kelvane::Router router;
    kelvane::Request request;
    std::string last_error;
    kelvane::Clock::duration bound;  // connect_attempts × connect timeout + command timeout
    kelvane::ValuesSizes values_sizes;  // hints for the range reads with values
    kelvane::Deadline deadline = kelvane::Deadline::after({});  // of the call under way

private:
    // A tag no earlier call of this client used: the call's reply must carry
    // it back, so that a reply left over from another call is never taken
    // for this one's.
    std::string_view next_tag();

    uint64_t calls_ = 0;
    char tag_[24];
    bool functions_refused_ = false;
};

#endif  // KELVANE_CLIENT_H
