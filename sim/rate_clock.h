#pragma once

// When the samples of a fixed-rate stream fall due. The stream keeps its
// long-run rate however late the wake-ups are, wakes at most once a
// millisecond (at high rates several samples leave per wake-up), and after a
// long stall skips the backlog instead of flooding the subscriber with it.
//
// Pure arithmetic on the time points it is given; not thread-safe.

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace pilot_sim {

class rate_clock {
public:
    using clock = std::chrono::steady_clock;

    /// Finest wake-up interval.
    static constexpr std::chrono::milliseconds min_wakeup{1};
    /// Most backlog that is still caught up; older due samples are skipped.
    static constexpr std::chrono::milliseconds max_backlog{100};

    /// A stream of `hz` samples a second starting at `start`; the first sample
    /// falls due one period after it. `hz` <= 0 means no samples at all.
    rate_clock(double hz, clock::time_point start);

    double rate() const { return hz_; }

    /// How many samples are due at `now` that were not taken yet; counts them
    /// as taken.
    std::size_t take_due(clock::time_point now);

    /// When to wake next: the due time of the next sample, but not earlier
    /// than `now` + `min_wakeup`. Meaningless when the rate is 0 or less.
    clock::time_point next_wakeup(clock::time_point now) const;

private:
    /// Due time of sample number `n` (1-based) of the current epoch.
    clock::time_point due_time(std::uint64_t n) const;

    double hz_;
    clock::time_point epoch_;
    std::uint64_t taken_ = 0;
};

}  // namespace pilot_sim
