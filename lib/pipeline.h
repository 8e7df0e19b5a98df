// pipeline.h -- one connection shared by every thread of a client: each
// caller queues its whole request, the commands queued while a write is under
// way go out together in the next write, and the replies, read in order, are
// handed to their callers.
//
// No thread of its own does the work: callers take it in turns. A caller that
// finds no write under way writes everything queued (a lone caller writes its
// own request straight from its buffer, with no copy); a caller waiting for
// its reply that finds nobody reading becomes the reader, and parses the
// replies as they come into their owners' sinks, waking each owner, until its
// own has come; then it hands the reading on. A lone caller so pays one send
// and one receive, as on a connection of its own, and is never woken.
//
// Every caller keeps its own deadline. A request whose deadline passes while
// it is still queued is taken out and never sent. A caller whose reply is
// late leaves: its reply is read, when it comes, into a sink of the
// connection's that keeps nothing but still checks the reply's tag, so the
// connection stays in step for the others. Only a caller whose reply is half
// read when its time runs out closes the connection: what is left of that
// reply cannot be told from what follows. A request sent (even in part) is
// never sent again here; the router decides on the others.
//
// A caller may hold the connection to itself (hold): no other caller's request
// is queued until it lets go, for commands that leave state on the server's
// side of the connection for its next request (a WATCH).
#ifndef KELVANE_PIPELINE_H
#define KELVANE_PIPELINE_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "deadline.h"
#include "reply_sink.h"
#include "socket.h"

namespace kelvane {

// How one caller's exchange went. A failed one has closed the connection,
// unless only this caller's time ran out.
struct Exchange {
    int32_t status;   // KV_SUCCESS: every reply arrived (any may be an error reply)
    bool sent;        // the whole request may have reached the server, which may have run it
    std::string why;  // a failure in words
};

class Pipeline {
public:
    Pipeline();
    ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    // Takes a new connection, usable by its opener alone (opener exchanges)
    // until ready(). The pipeline must be closed (wait_closed).
    void start(Socket&& socket, Reader reader);
    void ready();
    // Gives the connection up, from any thread: every exchange under way
    // fails (KV_CONNECTION_LOST), and the socket is closed as soon as no
    // thread is using it.
    void close() noexcept;
    // Closes the connection and waits until no thread uses its socket any
    // more (a moment: close() has woken them). False if the deadline came
    // first.
    bool wait_closed(Deadline deadline);

    bool is_open() const;
    bool is_tls() const;
    // Open, and not closed by the server: as NodeConnection::usable().
    bool usable(Clock::duration surely_alive_for) const;

    // Queues bytes (the whole request: the commands of each sink in turn),
    // sends them and reads each sink's replies into it, before the deadline.
    // caller: who asks (the same for every exchange of one call); hold: keep
    // the connection to this caller until release(caller). opener: the
    // greeting of a connection that is not ready yet.
    Exchange exchange(std::string_view bytes, std::initializer_list<ReplySink*> sinks, Deadline deadline,
                      const void* caller, bool hold, bool opener);
    void release(const void* caller);

private:
    static constexpr std::size_t kMostSinks = 3;
    enum class State : uint8_t { closed, opening, ready, broken };
    struct Waiter;
    struct Slot;
    enum class Parsed : uint8_t { complete, need_bytes, failed };

    // The queue of requests, oldest first, each a slot of the connection's
    // (slots are reused: no allocation once the queue has grown).
    Slot* push_slot(Waiter& owner, std::string_view bytes, std::initializer_list<ReplySink*> sinks);
    Slot* head() const { return ring_[head_]; }
    Slot* slot_at(std::size_t i) const { return ring_[(head_ + i) % ring_.size()]; }
    void pop_head();

    // The roles; each is called, and returns, with the lock held.
    void write(std::unique_lock<std::mutex>& lock, std::string_view bytes, Deadline deadline);
    void read(std::unique_lock<std::mutex>& lock, Waiter& me);
    Parsed parse(Slot& slot, int32_t* failure);
    void finish(Slot& slot, Waiter& me);
    Exchange give_up(std::unique_lock<std::mutex>& lock, Waiter& me);
    // Wakes a caller to take a role nobody holds.
    void hand_on(const Waiter* except);
    // Marks w woken; the wake itself goes once the lock is let go
    // (unlock_and_wake), so that w does not wake only to wait for the lock.
    void wake(Waiter& w);
    void unlock_and_wake(std::unique_lock<std::mutex>& lock);
    // Lets go of the lock until woken or the deadline.
    void sleep(std::unique_lock<std::mutex>& lock, Waiter& me, Deadline deadline);
    // Ends every exchange and closes the connection: culprit's exchange
    // with culprit_status, the others' with others_status.
    void break_off(const Slot* culprit, int32_t culprit_status, int32_t others_status, const std::string& why);
    void close_socket();
    bool live() const { return state_ == State::ready || state_ == State::opening; }

    mutable std::mutex mutex_;
    std::condition_variable changed_;  // a hold let go, a socket closed
    State state_ = State::closed;
    Socket socket_;
    Reader reader_;
    std::vector<Slot*> ring_;  // the queue: count_ slots from head_
    std::size_t head_ = 0, count_ = 0;
    std::vector<std::unique_ptr<Slot>> slots_;  // every slot made
    std::vector<Slot*> free_;
    std::vector<std::atomic<uint32_t>*> to_wake_;
    std::string queued_, sending_;  // bytes queued while a write was under way; those being written
    bool writing_ = false, reading_ = false;
    bool partial_ = false;  // the reader holds part of the head's reply
    const void* holder_ = nullptr;
    Clock::time_point last_alive_{};
    std::unique_ptr<DiscardReply> discard_ = std::make_unique<DiscardReply>();
    std::array<char, 16 * 1024> buffer_;
};

}  // namespace kelvane

#endif  // KELVANE_PIPELINE_H
