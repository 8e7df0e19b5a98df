// pipeline.cpp -- queueing, writing and reading in turns, and giving up.
#include "pipeline.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "kelvane.h"

namespace kelvane {

namespace {

// A caller sleeps on a word of its own (a futex), and is woken after the
// waker has let go of the lock: a caller woken under the lock would only
// wake to wait for it, and on a busy CPU that costs two more switches per
// call. Whoever wakes sets the word under the lock, while the caller is sure
// to be there; the wake itself, a system call on the word's address, may then
// come after the caller has gone, which does no harm: every wait here is in a
// loop that looks at its conditions again.
void futex_wait(std::atomic<uint32_t>* word, Deadline deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.remaining());
    if (left <= std::chrono::nanoseconds::zero()) return;
    const timespec ts{static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, 0u, &ts, nullptr, 0);
}

void futex_wake(std::atomic<uint32_t>* word) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// While the server has no more than this many requests to answer, a caller
// writes its own at once, rather than wait for the reader to send it with
// the others when the server answers: few callers then pay no wait, and many
// share their writes (and the server its reads).
constexpr std::size_t kEagerWrites = 4;

// Whether the reader holds part of a reply. Looking for a reply in a buffer
// read to its end leaves hiredis's first task set up but empty (no type yet):
// that is no part of one.
bool reply_begun(const redisReader* r) { return r->ridx > 0 || (r->ridx == 0 && r->rstack[0].type != -1); }

}  // namespace

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

Pipeline::Pipeline() = default;
Pipeline::~Pipeline() = default;

void Pipeline::start(Socket&& socket, Reader reader) {
    const std::lock_guard<std::mutex> lock(mutex_);
    socket_ = std::move(socket);
    reader_ = std::move(reader);
    state_ = State::opening;
    partial_ = false;
}

void Pipeline::ready() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::opening) state_ = State::ready;
    last_alive_ = Clock::now();
}

bool Pipeline::is_open() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return live();
}

bool Pipeline::is_tls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return socket_.is_tls();
}

bool Pipeline::usable(Clock::duration surely_alive_for) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::ready) return false;
    const Clock::time_point now = Clock::now();
    if (now - last_alive_ < surely_alive_for) return true;
    // Requests under way: their replies will tell. A look now would take
    // their bytes for stray ones.
    if (count_ > 0 || reading_ || writing_) return true;
    if (!socket_.idle_and_alive()) return false;
    const_cast<Pipeline*>(this)->last_alive_ = now;
    return true;
}

void Pipeline::close() noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (live()) break_off(nullptr, KV_CONNECTION_LOST, KV_CONNECTION_LOST, "the connection was closed");
}

bool Pipeline::wait_closed(Deadline deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (live()) break_off(nullptr, KV_CONNECTION_LOST, KV_CONNECTION_LOST, "the connection was closed");
    while (reading_ || writing_) {
        if (changed_.wait_until(lock, deadline.at()) == std::cv_status::timeout && (reading_ || writing_)) {
            return false;
        }
    }
    if (state_ != State::closed) close_socket();
    return true;
}

void Pipeline::release(const void* caller) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (holder_ != caller) return;
    holder_ = nullptr;
    changed_.notify_all();
}

Pipeline::Slot* Pipeline::push_slot(Waiter& owner, std::string_view bytes,
                                    std::initializer_list<ReplySink*> sinks) {
    if (free_.empty()) {
        slots_.push_back(std::make_unique<Slot>());
        free_.reserve(slots_.size());
        free_.push_back(slots_.back().get());
    }
    if (count_ == ring_.size()) {
        std::vector<Slot*> grown(std::max<std::size_t>(8, ring_.size() * 2));
        for (std::size_t i = 0; i < count_; ++i) grown[i] = slot_at(i);
        ring_.swap(grown);
        head_ = 0;
    }
    Slot* s = free_.back();
    free_.pop_back();
    s->owner = &owner;
    s->nsinks = std::min(sinks.size(), kMostSinks);
    s->tag_len = 0;
    std::size_t i = 0;
    for (ReplySink* sink : sinks) {
        if (i == s->nsinks) break;
        s->sinks[i] = sink;
        s->replies[i] = sink->replies();
        s->places[i] = sink->tag_place();
        if (sink->tag_place() != TagPlace::none) {
            // Kept for a discarded reply, whose sink is gone.
            s->tag_len = std::min(sink->tag().size(), sizeof s->tag);
            std::memcpy(s->tag, sink->tag().data(), s->tag_len);
        }
        ++i;
    }
    s->sink = s->reply = 0;
    s->in_tag = false;
    s->busy = false;
    s->state = Slot::State::queued;
    s->bytes = bytes.size();
    ring_[(head_ + count_) % ring_.size()] = s;
    ++count_;
    return s;
}

void Pipeline::pop_head() {
    free_.push_back(head());
    head_ = (head_ + 1) % ring_.size();
    --count_;
}

void Pipeline::close_socket() {
    socket_.close();
    reader_.reset();
    state_ = State::closed;
    changed_.notify_all();
}

void Pipeline::break_off(const Slot* culprit, int32_t culprit_status, int32_t others_status,
                         const std::string& why) {
    for (std::size_t i = 0; i < count_; ++i) {
        Slot* s = slot_at(i);
        if (Waiter* w = s->owner) {
            const bool sent = s->state == Slot::State::sent || s->state == Slot::State::sending;
            w->result = Exchange{s == culprit ? culprit_status : others_status, sent, why};
        }
        // A slot the reader is parsing into stays its until it is done.
        if (s->busy) continue;
        if (s->owner != nullptr) {
            // Woken at once: breaking off is rare, and the lock may next be
            // let go of by a wait that wakes nobody.
            s->owner->done = true;
            s->owner->woken.store(1, std::memory_order_release);
            futex_wake(&s->owner->woken);
        }
        free_.push_back(s);
    }
    count_ = head_ = 0;
    queued_.clear();
    state_ = State::broken;
    holder_ = nullptr;
    partial_ = false;
    // A thread in a send or a receive is woken, and the last one out closes
    // the socket: it is never closed under a thread that uses it.
    if (reading_ || writing_) {
        socket_.shut_down();
    } else {
        close_socket();
    }
    changed_.notify_all();
}

void Pipeline::hand_on(const Waiter* except) {
    if (!live()) return;
    if (!reading_) {
        for (std::size_t i = 0; i < count_; ++i) {
            const Slot* s = slot_at(i);
            if (s->state == Slot::State::sent && s->owner != nullptr && s->owner != except) {
                wake(*s->owner);
                break;
            }
        }
    }
    if (!writing_ && !queued_.empty()) {
        for (std::size_t i = 0; i < count_; ++i) {
            const Slot* s = slot_at(i);
            if (s->state == Slot::State::queued && s->owner != nullptr && s->owner != except) {
                wake(*s->owner);
                break;
            }
        }
    }
}

void Pipeline::write(std::unique_lock<std::mutex>& lock, std::string_view bytes, Deadline deadline) {
    // bytes: a lone caller's own request, its slot marked sending already;
    // empty: everything queued.
    std::string_view out = bytes;
    if (out.empty()) {
        sending_.swap(queued_);
        for (std::size_t i = 0; i < count_; ++i) {
            Slot* s = slot_at(i);
            if (s->state == Slot::State::queued) s->state = Slot::State::sending;
        }
        out = sending_;
    }
    writing_ = true;
    unlock_and_wake(lock);
    std::size_t written = 0;
    const int32_t status = socket_.send_all(out, deadline, &written);
    lock.lock();
    writing_ = false;
    if (!live()) {
        if (!reading_ && state_ == State::broken) close_socket();
        sending_.clear();
        return;
    }
    std::size_t covered = 0;
    for (std::size_t i = 0; i < count_; ++i) {
        Slot* s = slot_at(i);
        if (s->state != Slot::State::sending) continue;
        // A request cut off by a failed send never ran: it may go again, on
        // another connection.
        covered += s->bytes;
        s->state = status == KV_SUCCESS || covered <= written ? Slot::State::sent : Slot::State::queued;
    }
    sending_.clear();
    if (status != KV_SUCCESS) break_off(nullptr, status, status, socket_.send_failure());
}

Pipeline::Parsed Pipeline::parse(Slot& s, int32_t* failure) {
    redisReader* r = reader_.get();
    for (;;) {
        if (s.sink >= s.nsinks) return Parsed::complete;
        // The sink of the reply to come; a reply half read keeps the one it
        // started with (the reader's root task holds it).
        const bool starting = !reply_begun(r);
        if (starting) r->ridx = -1;  // so that the reply to come takes the sink set below
        ReplySink* target = s.sinks[s.sink];
        if (s.owner == nullptr) {
            DiscardReply& discard = *discard_;
            if (starting) {
                const std::string_view tag(s.tag, s.tag_len);
                discard.reset();
                if (s.in_tag) {
                    discard.expect_tag(tag, TagPlace::own_reply);
                    discard.start_tag_reply();
                } else {
                    const bool last = s.places[s.sink] == TagPlace::last_element;
                    discard.expect_tag(last ? tag : std::string_view(), last ? TagPlace::last_element : TagPlace::none);
                }
            }
            target = &discard;
        }
        if (starting) set_sink(r, target);
        void* reply = nullptr;
        // A reply that does not fit its command, or a protocol error, leaves
        // the stream out of step: nothing after it can be trusted.
        if (redisReaderGetReply(r, &reply) != REDIS_OK) {
            *failure = target->failure() != KV_SUCCESS ? target->failure() : KV_SERVER_ERROR;
            return Parsed::failed;
        }
        if (reply == nullptr) return Parsed::need_bytes;
        // The next reply: of this sink, its tag's, or the next sink's.
        if (s.in_tag) {
            s.in_tag = false;
            ++s.sink;
            s.reply = 0;
        } else {
            ++s.reply;
        }
        while (s.sink < s.nsinks && !s.in_tag && s.reply >= s.replies[s.sink]) {
            if (s.owner != nullptr) s.sinks[s.sink]->replies_read();
            if (s.places[s.sink] == TagPlace::own_reply) {
                s.in_tag = true;
                if (s.owner != nullptr) s.sinks[s.sink]->start_tag_reply();
            } else {
                ++s.sink;
                s.reply = 0;
            }
        }
    }
}

void Pipeline::finish(Slot& s, Waiter& me) {
    // Bytes after the last reply asked for answer nothing: the stream is out
    // of step, and the replies just read may be some other command's.
    bool more_asked = false;
    for (std::size_t i = 1; i < count_ && !more_asked; ++i) {
        const Slot::State st = slot_at(i)->state;
        more_asked = st == Slot::State::sent || st == Slot::State::sending;
    }
    const redisReader* r = reader_.get();
    if (!more_asked && r->pos < r->len) {
        break_off(&s, KV_SERVER_ERROR, KV_CONNECTION_LOST, "the server sent more than the replies asked for");
        return;
    }
    last_alive_ = Clock::now();
    partial_ = false;  // the reply that was half read, if any, is whole now
    if (Waiter* w = s.owner) {
        w->result = Exchange{KV_SUCCESS, true, {}};
        w->done = true;
        if (w != &me) wake(*w);
    }
    pop_head();
}

void Pipeline::read(std::unique_lock<std::mutex>& lock, Waiter& me) {
    reading_ = true;
    while (!me.done && live()) {
        if (!writing_ && !queued_.empty()) {
            write(lock, {}, me.deadline);
            continue;
        }
        while (count_ > 0 && head()->state == Slot::State::cancelled) pop_head();
        if (count_ == 0 || head()->state != Slot::State::sent) break;  // its request is still being written
        Slot* h = head();
        h->busy = true;
        int32_t failure = KV_SUCCESS;
        // The owners of the replies parsed so far are woken once the reader
        // is through what it holds (before it waits, or leaves): woken one by
        // one in between, each would take the CPU from the reader.
        lock.unlock();
        const Parsed parsed = parse(*h, &failure);
        lock.lock();
        h->busy = false;
        if (!live()) {
            // Broken off while we parsed: the slot was left to us to end.
            if (h->owner != nullptr) {
                h->owner->done = true;
                wake(*h->owner);
            }
            free_.push_back(h);
            break;
        }
        if (h->owner != nullptr && h->owner->leaving) wake(*h->owner);
        if (parsed == Parsed::complete) {
            finish(*h, me);
            continue;
        }
        if (parsed == Parsed::failed) {
            break_off(h, failure, KV_CONNECTION_LOST,
                      failure == KV_NO_MEMORY ? "out of memory for the reply"
                                              : "the server's reply does not fit its command, or breaks the protocol");
            break;
        }
        partial_ = reply_begun(reader_.get());
        unlock_and_wake(lock);
        std::size_t received = 0;
        const int32_t status = socket_.receive(buffer_.data(), buffer_.size(), me.deadline, &received);
        lock.lock();
        if (!live()) break;
        if (status == KV_TIMEOUT) break;  // this caller's time is up: it gives up, and hands the reading on
        if (status != KV_SUCCESS) {
            break_off(nullptr, status, status, socket_.receive_failure());
            break;
        }
        if (redisReaderFeed(reader_.get(), buffer_.data(), received) != REDIS_OK) {
            break_off(nullptr, KV_NO_MEMORY, KV_NO_MEMORY, "out of memory for the reply");
            break;
        }
    }
    reading_ = false;
    if (state_ == State::broken && !writing_) close_socket();
}

Exchange Pipeline::give_up(std::unique_lock<std::mutex>& lock, Waiter& me) {
    Slot* s = me.slot;
    // The reader may be parsing into our sinks: that takes a moment, not a
    // wait on the network.
    me.leaving = true;
    while (!me.done && s->busy) sleep(lock, me, Deadline::after(kLongestWait));
    if (me.done) return std::move(me.result);
    Exchange out{KV_TIMEOUT, true, "no reply within the deadline"};
    switch (s->state) {
        case Slot::State::queued: {
            // Never sent: taken out of the queue.
            std::size_t offset = 0;
            for (std::size_t i = 0; i < count_ && slot_at(i) != s; ++i) {
                if (slot_at(i)->state == Slot::State::queued) offset += slot_at(i)->bytes;
            }
            queued_.erase(offset, s->bytes);
            s->state = Slot::State::cancelled;
            out = Exchange{KV_TIMEOUT, false, "could not send within the deadline: the connection was busy"};
            break;
        }
        case Slot::State::sent:
            if (s == head() && partial_) {
                // Half of its reply is read: the rest cannot be told from
                // what follows it.
                break_off(s, KV_TIMEOUT, KV_CONNECTION_LOST, "no reply within the deadline");
                return std::move(me.result);
            }
            break;
        default:
            break;
    }
    s->owner = nullptr;  // its replies, if any come, are discarded
    me.done = true;
    return out;
}

Exchange Pipeline::exchange(std::string_view bytes, std::initializer_list<ReplySink*> sinks,
                            Deadline deadline, const void* caller, bool hold, bool opener) {
    for (ReplySink* sink : sinks) sink->reset();
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (!(state_ == State::ready || (opener && state_ == State::opening))) {
            return Exchange{KV_CONNECTION_LOST, false, "the connection was closed"};
        }
        if (holder_ == nullptr || holder_ == caller) break;
        if (deadline.passed()) {
            return Exchange{KV_TIMEOUT, false, "another call kept the connection to itself until the deadline"};
        }
        changed_.wait_until(lock, deadline.at());
    }
    if (deadline.passed()) return Exchange{KV_TIMEOUT, false, "could not send within the deadline"};
    Waiter me;
    me.deadline = deadline;
    Slot* s = push_slot(me, bytes, sinks);
    me.slot = s;
    if (hold) holder_ = caller;
    if (!writing_ && queued_.empty() && (!reading_ || count_ <= kEagerWrites)) {
        s->state = Slot::State::sending;  // nobody else writes: straight from the caller's buffer
        write(lock, bytes, deadline);
    } else {
        // Sent with the others queued: by the reader, the moment the server
        // answers what it has (so the server takes them in one read), or by
        // whichever caller takes the writing.
        queued_.append(bytes.data(), bytes.size());
    }
    Exchange out{KV_SUCCESS, true, {}};
    for (;;) {
        if (me.done) {
            out = std::move(me.result);
            break;
        }
        if (deadline.passed()) {
            out = give_up(lock, me);
            break;
        }
        if (!writing_ && !queued_.empty() && (!reading_ || count_ <= kEagerWrites) && live()) {
            write(lock, {}, deadline);
            continue;
        }
        if (!reading_ && s->state == Slot::State::sent && live()) {
            read(lock, me);
            continue;
        }
        sleep(lock, me, deadline);
    }
    if (hold && out.status != KV_SUCCESS && holder_ == caller) {
        holder_ = nullptr;
        changed_.notify_all();
    }
    hand_on(&me);
    unlock_and_wake(lock);
    return out;
}

void Pipeline::wake(Waiter& w) {
    w.woken.store(1, std::memory_order_release);
    to_wake_.push_back(&w.woken);
}

void Pipeline::sleep(std::unique_lock<std::mutex>& lock, Waiter& me, Deadline deadline) {
    me.woken.store(0, std::memory_order_relaxed);
    unlock_and_wake(lock);
    futex_wait(&me.woken, deadline);
    lock.lock();
}

void Pipeline::unlock_and_wake(std::unique_lock<std::mutex>& lock) {
    std::array<std::atomic<uint32_t>*, 32> words;
    const std::size_t n = std::min(to_wake_.size(), words.size());
    std::copy(to_wake_.end() - static_cast<std::ptrdiff_t>(n), to_wake_.end(), words.begin());
    to_wake_.resize(to_wake_.size() - n);
    // More than fit: the rest are woken now, under the lock.
    for (std::atomic<uint32_t>* word : to_wake_) futex_wake(word);
    to_wake_.clear();
    lock.unlock();
    for (std::size_t i = 0; i < n; ++i) futex_wake(words[i]);
}

}  // namespace kelvane
