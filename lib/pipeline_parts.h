// pipeline_parts.h -- what the two halves of the pipeline share (pipeline.cpp:
// the callers' turns at writing and reading; pipeline_queue.cpp: the queue,
// the connection's life and waking callers): a caller waiting, a request in
// the queue, and how a caller sleeps.
#ifndef KELVANE_PIPELINE_PARTS_H
#define KELVANE_PIPELINE_PARTS_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <ctime>

#include "kelvane.h"
#include "pipeline.h"

namespace kelvane {

// A caller sleeps on a word of its own (a futex), and is woken after the
// waker has let go of the lock: a caller woken under the lock would only
// wake to wait for it, and on a busy CPU that costs two more switches per
// call. Whoever wakes sets the word under the lock, while the caller is sure
// to be there; the wake itself, a system call on the word's address, may then
// come after the caller has gone, which does no harm: every wait here is in a
// loop that looks at its conditions again.
inline void futex_wait(std::atomic<uint32_t>* word, Deadline deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.remaining());
    if (left <= std::chrono::nanoseconds::zero()) return;
    const timespec ts{static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, 0u, &ts, nullptr, 0);
}

inline void futex_wake(std::atomic<uint32_t>* word) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// Whether the reader holds part of a reply. Looking for a reply in a buffer
// read to its end leaves hiredis's first task set up but empty (no type yet):
// that is no part of one.
inline bool reply_begun(const redisReader* r) { return r->ridx > 0 || (r->ridx == 0 && r->rstack[0].type != -1); }

// One caller, on its own stack, while its exchange is under way.
struct Pipeline::Waiter {
    std::atomic<uint32_t> woken{0};
    Slot* slot = nullptr;
    Deadline deadline = Deadline::after({});
    bool done = false;
    bool leaving = false;  // its time is up, and it waits for the reader to let go of its sinks
    Exchange result{KV_SUCCESS, true, {}};
};

// One request in the queue: what its replies look like, where they go, and
// how far they have come. Owned by the connection, so that the replies of a
// caller that left can still be read.
struct Pipeline::Slot {
    enum class State : uint8_t { queued, sending, sent, cancelled };
    Waiter* owner = nullptr;  // null once the caller has left: its replies are discarded
    std::array<ReplySink*, kMostSinks> sinks{};
    std::array<std::size_t, kMostSinks> replies{};
    std::array<TagPlace, kMostSinks> places{};
    std::size_t nsinks = 0;
    char tag[24] = {};
    std::size_t tag_len = 0;
    // The reply to read next: of sinks[sink], its reply-th, or its tag's.
    std::size_t sink = 0, reply = 0;
    bool in_tag = false;
    State state = State::queued;
    std::size_t bytes = 0;  // the request's length
    bool busy = false;      // the reader is parsing into it, without the lock
};

}  // namespace kelvane

#endif  // KELVANE_PIPELINE_PARTS_H
