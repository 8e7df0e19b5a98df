// read_attempts.h -- how a native read goes round: which envelope makes its
// commands atomic, and when it sends them again.
//
// A transaction costs the server least, but a server at its memory limit
// refuses to queue commands in one (whatever they are), and answers OOM:
// the read then opens with a WATCH and closes with an empty MULTI/EXEC
// instead, which queues nothing. A watched run whose keys changed before its
// EXEC is read again, within the call's deadline. Neither form can follow a
// cluster's ASK, which covers one command; a watched run that meets one
// answers KV_SERVER_FULL, the reason it was watched.
#ifndef KELVANE_READ_ATTEMPTS_H
#define KELVANE_READ_ATTEMPTS_H

#include <cstdint>

#include "client.h"
#include "kelvane.h"
#include "router.h"
#include "transaction_reply.h"

namespace kelvane::native {

class ReadAttempts {
public:
    explicit ReadAttempts(const kv_client& client) : client_(client) {}

    // The envelope of an attempt whose commands need one.
    const Envelope& envelope() const { return full_ ? kWatched : kTransaction; }

    // After an attempt in envelope sent (status from the run, reply its
    // sink): whether to go round again. If not, *status is the attempt's.
    bool again(const Envelope& sent, const TransactionReply& reply, int32_t* status) {
        if (*status == KV_SERVER_FULL && sent.transaction && !full_) {
            full_ = true;
            return true;
        }
        if (*status == kKeyMoving) {
            *status = KV_SERVER_FULL;
            return false;
        }
        if (*status != KV_SUCCESS || !reply.watch_failed()) return false;
        if (!client_.deadline().passed()) return true;
        *status = KV_TIMEOUT;
        return false;
    }

private:
    const kv_client& client_;
    bool full_ = false;
};

}  // namespace kelvane::native

#endif  // KELVANE_READ_ATTEMPTS_H
