// deadline.h -- the moment by which one call must have returned. Every wait
// of a call (connecting, sending, each read of a reply, a back-off before a
// retry) is bounded by the same deadline, so no mix of slow steps can add up
// past it.
//
// All arithmetic on waits saturates at kLongestWait: settings of billions of
// seconds times billions of attempts mean "as long as it takes", and must
// never overflow into a deadline that has already passed.
#ifndef KELVANE_DEADLINE_H
#define KELVANE_DEADLINE_H

#include <algorithm>
#include <chrono>

namespace kelvane {

using Clock = std::chrono::steady_clock;

// About a hundred years: longer than any process lives, and far enough
// below the clock's range that now() plus it never overflows.
inline constexpr Clock::duration kLongestWait = std::chrono::hours(24 * 365 * 100);

// attempts × each + last, held to kLongestWait (attempts and both waits
// taken as not negative).
inline Clock::duration saturated_total(long long attempts, std::chrono::milliseconds each,
                                       std::chrono::milliseconds last) {
    using std::chrono::milliseconds;
    const milliseconds limit = std::chrono::duration_cast<milliseconds>(kLongestWait);
    const milliseconds tail = std::min(std::max(last, milliseconds::zero()), limit);
    const milliseconds room = limit - tail;
    if (attempts <= 0 || each <= milliseconds::zero()) return tail;
    if (each > room || attempts > room / each) return kLongestWait;
    return attempts * each + tail;
}

class Deadline {
public:
    static Deadline after(Clock::duration d) { return Deadline(later(Clock::now(), d)); }

    bool passed() const { return Clock::now() >= at_; }

    // Time left, never negative.
    Clock::duration remaining() const {
        const Clock::duration left = at_ - Clock::now();
        return left > Clock::duration::zero() ? left : Clock::duration::zero();
    }

    // The moment itself, for waits on a clock.
    Clock::time_point at() const { return at_; }

    // The earlier of this deadline and one d from now.
    Deadline within(Clock::duration d) const { return Deadline(std::min(at_, later(Clock::now(), d))); }

private:
    explicit Deadline(Clock::time_point at) : at_(at) {}
    static Clock::time_point later(Clock::time_point from, Clock::duration d) {
        return from + std::clamp(d, Clock::duration::zero(), kLongestWait);
    }
    Clock::time_point at_;
};

}  // namespace kelvane

#endif  // KELVANE_DEADLINE_H
