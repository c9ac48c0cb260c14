// Deadlines, deadline-based waiting and the lab-wide order of observations.
#pragma once

#include <chrono>
#include <cstdint>
#include <thread>

namespace qmlab {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

class Deadline {
public:
    explicit Deadline(Clock::duration timeout) : at_(Clock::now() + timeout) {}
    static Deadline At(Clock::time_point at)
    {
        Deadline d(Clock::duration::zero());
        d.at_ = at;
        return d;
    }
    bool Expired() const { return Clock::now() >= at_; }
    Clock::time_point When() const { return at_; }
    Clock::duration Remaining() const
    {
        auto left = at_ - Clock::now();
        return left > Clock::duration::zero() ? left : Clock::duration::zero();
    }
    // For poll(2): at least 1 ms while time is left, 0 once expired.
    int RemainingMs() const
    {
        auto ms = std::chrono::ceil<std::chrono::milliseconds>(Remaining()).count();
        return static_cast<int>(ms > 0x7fffffff ? 0x7fffffff : ms);
    }

private:
    Clock::time_point at_;
};

// Looks at `pred` until it holds or the time is up; returns its last value.
// For state that has no notification of its own (files, processes).
template <class Pred>
bool Eventually(Pred &&pred, Clock::duration timeout = 10s, Clock::duration step = 5ms)
{
    Deadline deadline(timeout);
    for (;;) {
        if (pred()) {
            return true;
        }
        if (deadline.Expired()) {
            return pred();
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(step, deadline.Remaining()));
        if (step < 50ms) {
            step *= 2;
        }
    }
}

// Every observation the lab makes (a driver request, a notification, a
// system-log line) takes a number from one counter, so that tests can assert
// the order of things seen through different channels.
struct Stamp {
    uint64_t seq = 0;
    Clock::time_point at{};
};
Stamp StampNow();

}  // namespace qmlab
