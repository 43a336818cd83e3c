#pragma once

// Playing a flight recording back: the events of a file written by
// `pilot-rpc record`, published to the simulator's subscribers with their
// recorded spacing scaled by a speed factor. Pure timing arithmetic; the
// engine drives it on its I/O thread.

#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

#include "recording.h"

namespace pilot_sim {

struct replay_plan {
    std::vector<velmora_recording::recorded_event> events;  ///< "t" never decreasing; not empty
    double speed = 1.0;  ///< 2: twice as fast
    bool loop = false;   ///< start again after the last event, without end
};

/// Where a playback stands and when each event is due.
class replay_cursor {
public:
    using clock = std::chrono::steady_clock;

    /// Lead-in from the first subscription to the first event, so that the
    /// rest of a client's subscriptions (sent in one go) are in place.
    static constexpr std::chrono::milliseconds lead_in{200};

    /// `plan` must outlive the cursor.
    explicit replay_cursor(const replay_plan& plan) : plan_(plan) {}

    /// Begins the first round at `now`.
    void begin(clock::time_point now);
    /// The next event to publish; null when the playback is over.
    const velmora_recording::recorded_event* next() const;
    /// When `next()` is due.
    clock::time_point next_due() const;
    /// Moves past `next()`; at the end of a looping plan, begins the next round
    /// one average spacing after the last event (at least 10 ms; 1 s for a
    /// one-event file).
    void advance();
    std::size_t rounds_done() const { return rounds_done_; }

private:
    clock::duration scaled(std::int64_t ms) const;

    const replay_plan& plan_;
    clock::time_point round_start_;
    std::size_t index_ = 0;
    std::size_t rounds_done_ = 0;
};

}  // namespace pilot_sim
