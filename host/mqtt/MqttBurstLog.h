#pragma once

#include <chrono>
#include <cstdint>

namespace vlm {

/// Picks the events of a flood that get a log line: the first of a burst and
/// every 1000th after it. A burst ends after 10 s without an event. Not
/// thread-safe: the owner's mutex guards it.
class MqttBurstLog {
public:
    /// Records one event. Returns the number of events in the current burst
    /// when this one is to be logged, 0 otherwise.
    std::uint64_t record(std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now())
    {
        if (inBurst == 0 || now - last > quietGap)
            inBurst = 0;
        last = now;
        ++inBurst;
        return (inBurst == 1 || inBurst % everyNth == 0) ? inBurst : 0;
    }

private:
    static constexpr std::uint64_t everyNth = 1000;
    static constexpr std::chrono::seconds quietGap{10};
    std::uint64_t inBurst = 0;
    std::chrono::steady_clock::time_point last;
};

} // namespace vlm
