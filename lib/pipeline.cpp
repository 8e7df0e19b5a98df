// pipeline.cpp -- the callers' turns: writing what is queued, reading the
// replies into their owners' sinks, and giving up when time runs out.
#include <algorithm>

#include "pipeline_parts.h"

namespace kelvane {
namespace {

// While the server has no more than this many requests to answer, a caller
// writes its own at once, rather than wait for the reader to send it with
// the others when the server answers: few callers then pay no wait, and many
// share their writes (and the server its reads).
constexpr std::size_t kEagerWrites = 4;

}  // namespace

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

}  // namespace kelvane
