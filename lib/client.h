// client.h -- the state behind a kv_client handle: its settings, its memory
// manager, the router that reaches the servers, the request buffer that
// every call writes its command into, and why its last call failed.
#ifndef KELVANE_CLIENT_H
#define KELVANE_CLIENT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "deadline.h"
#include "kelvane.h"
#include "reply_sink.h"
#include "request.h"
#include "router.h"

struct kv_client {
    kv_client(kv_mm* manager, const kelvane::RouterSettings& given)
        : mm(manager), settings(given), router(given) {}

    // The moment by which a call that starts now must return: every
    // connection attempt may take its connect timeout, and the command its
    // command timeout.
    kelvane::Deadline call_deadline() const {
        return kelvane::Deadline::after(settings.connect_attempts * settings.connect_timeout +
                                        settings.command_timeout);
    }

    // Runs the function call in request, for kelvane key K, and reads its
    // reply into sink. The router's status, KV_SUCCESS once a reply came.
    int32_t run_function(const char* key, std::size_t key_len, kelvane::ReplySink& sink);
    // Runs a plain command on the node that serves K.
    int32_t run_command(const char* key, std::size_t key_len, kelvane::ReplySink& sink);

    // Ends an exported call with status: keeps why it failed, in words, for
    // kv_last_error, or forgets any earlier failure.
    void finish_call(int32_t status);

    kv_mm* mm;
    kelvane::RouterSettings settings;
    kelvane::Router router;
    kelvane::Request request;
    std::string last_error;
};

#endif  // KELVANE_CLIENT_H
