#pragma once
// One source of time. Code that reads the time takes a `const Clock&`; processes pass
// `Clock::system()`, tests pass a FakeClock (tests/support/fake_clock.h) and never sleep.
#include <cstdint>

namespace aimwise {

class Clock {
public:
    virtual ~Clock() = default;
    // "Now": the system clock in seconds times 1000, truncated to whole milliseconds.
    virtual int64_t wallMs() const = 0;
    // For intervals and deadlines, which a change of the wall clock must not stretch or cut short.
    virtual int64_t monotonicMs() const = 0;
    // Blocks the calling thread; a fake clock advances instead.
    virtual void sleepMs(int64_t ms) const = 0;

    static const Clock& system();
};

// The system clock's "now", for the few places that have no clock handed to them (process start).
inline int64_t wallClockMs() { return Clock::system().wallMs(); }

}  // namespace aimwise
