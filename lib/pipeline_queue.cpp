// pipeline_queue.cpp -- the pipeline's queue of requests, the life of its
// connection (started, ready, broken off, closed once nobody uses it), and
// the waking of callers.
#include <algorithm>
#include <cstring>

#include "pipeline_parts.h"

namespace kelvane {

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
