// call_state.cpp -- each thread's call state and its clients' last failures.
#include "call_state.h"

namespace kelvane {

CallState& this_call() {
    thread_local CallState state;
    return state;
}

LastErrors& LastErrors::of_this_thread() {
    thread_local LastErrors errors;
    return errors;
}

void LastErrors::set(uint64_t client, std::string_view text) {
    for (Entry& e : entries_) {
        if (e.client == client) {
            e.text.assign(text);
            return;
        }
    }
    if (entries_.size() < kClients) {
        entries_.push_back(Entry{client, std::string(text)});
        return;
    }
    // The oldest entry goes: its client is one this thread has not failed on
    // for the longest.
    entries_[next_] = Entry{client, std::string(text)};
    next_ = (next_ + 1) % kClients;
}

void LastErrors::clear(uint64_t client) {
    for (Entry& e : entries_) {
        if (e.client == client) {
            e.text.clear();
            return;
        }
    }
}

const char* LastErrors::get(uint64_t client) const {
    for (const Entry& e : entries_) {
        if (e.client == client) return e.text.c_str();
    }
    return "";
}

}  // namespace kelvane
