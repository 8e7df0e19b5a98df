// call_state.h -- what belongs to one call rather than to its client: the
// request it writes, its deadline, its tag, the connection a WATCH holds for
// it, and why the router failed it. A client is shared by any number of
// threads, and a thread makes one call at a time, so each thread keeps one
// CallState and every call it makes reuses it: its request buffer, once grown
// to the thread's usual sizes, makes a call allocate nothing.
//
// Why a client's last call failed is kept per thread and per client
// (LastErrors), for kv_last_error.
#ifndef KELVANE_CALL_STATE_H
#define KELVANE_CALL_STATE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "deadline.h"
#include "request.h"

namespace kelvane {

class NodeConnection;

// Why the router failed a call, in words, and with which status; the client
// reports it when the call ends with that status.
struct Failure {
    int32_t status = 0;
    std::string text;
};

// The connection a call's last routed exchange went over, for a request that
// relies on what it left there (a WATCH), and whether the call holds it to
// itself (NodeConnection::hold).
struct Pin {
    const void* router = nullptr;
    NodeConnection* connection = nullptr;
    const void* node = nullptr;
    uint64_t session = 0;
    bool held = false;
};

struct CallState {
    Request request;
    Deadline deadline = Deadline::after({});
    char tag[24] = {};
    std::size_t tag_len = 0;
    Failure failure;
    Pin pin;

    std::string_view tag_text() const { return std::string_view(tag, tag_len); }
    void forget_failure() {
        if (failure.status == 0) return;  // the usual case, on every call: nothing to free
        failure.status = 0;
        failure.text.clear();
    }
};

// The calling thread's call state.
CallState& this_call();

// Why this thread's last call on each client failed, by the client's serial
// number (never reused, so a client made where a destroyed one lived starts
// clean). A thread remembers the last few clients it used; one it has not
// used for longer reads as "".
class LastErrors {
public:
    static LastErrors& of_this_thread();

    void set(uint64_t client, std::string_view text);
    // Forgets the failure of client's last call, if there was one: on
    // success nothing is written, so nothing is allocated.
    void clear(uint64_t client);
    const char* get(uint64_t client) const;

private:
    struct Entry {
        uint64_t client;
        std::string text;
    };
    static constexpr std::size_t kClients = 16;
    std::vector<Entry> entries_;
    std::size_t next_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_CALL_STATE_H
