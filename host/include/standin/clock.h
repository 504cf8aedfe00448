// The stand-in host's clock: what ac::util::get_time() reads.
#pragma once

#include <ctime>
#include <mutex>

namespace standin {

// The steady clock (CLOCK_MONOTONIC), or a manual clock that only moves when
// told to. Every member may be called from any thread.
class Clock {
public:
    // The process's clock, never destroyed; it starts on the steady clock.
    static Clock& instance();
    // From now on the clock reads start until it is advanced.
    void set_manual(timespec start);
    void set_real();
    // Moves the manual clock by ms (which may be negative). On the steady
    // clock it first stops the clock at the present time.
    void advance_ms(long ms);
    timespec now() const;

private:
    Clock() = default;
    mutable std::mutex mutex_;
    bool manual_ = false;
    timespec manual_now_{};
};

}  // namespace standin
