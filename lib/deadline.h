// deadline.h -- the moment by which one call must have returned. Every wait
// of a call (connecting, sending, each read of a reply, a back-off before a
// retry) is bounded by the same deadline, so no mix of slow steps can add up
// past it.
#ifndef KELVANE_DEADLINE_H
#define KELVANE_DEADLINE_H

#include <algorithm>
#include <chrono>

namespace kelvane {

using Clock = std::chrono::steady_clock;

class Deadline {
public:
    static Deadline after(Clock::duration d) { return Deadline(Clock::now() + d); }

    bool passed() const { return Clock::now() >= at_; }

    // Time left, never negative.
    Clock::duration remaining() const {
        const Clock::duration left = at_ - Clock::now();
        return left > Clock::duration::zero() ? left : Clock::duration::zero();
    }

    // The earlier of this deadline and one d from now.
    Deadline within(Clock::duration d) const { return Deadline(std::min(at_, Clock::now() + d)); }

private:
    explicit Deadline(Clock::time_point at) : at_(at) {}
    Clock::time_point at_;
};

}  // namespace kelvane

#endif  // KELVANE_DEADLINE_H
