#pragma once

// What the plug-in counts of the requests its fronts forward, for its metrics
// report (PluginMetrics.h). Counting is a few relaxed atomic additions per
// request and changes nothing the fronts do.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace vlm {

/// Where a request came in.
enum class ForwardFront { http, mqtt, bus };
inline constexpr std::size_t forwardFrontCount = 3;

/// How it ended, by the code its answer carries: answered by the service,
/// -1 (no such API on this front), 4001 (vehicle not connected), 4002 (the
/// call failed or the service refused it), or an error of the link (time-out,
/// connection lost; the answer carries that error's code).
enum class ForwardOutcome { answered, apiNotExist, vehicleNotConnected, serviceCallFailed, linkError };
inline constexpr std::size_t forwardOutcomeCount = 5;

/// "http", "mqtt", "bus".
const char* forwardFrontName(ForwardFront front);
/// "answered", "-1", "4001", "4002", "link_error".
const char* forwardOutcomeName(ForwardOutcome outcome);

/// Upper bounds of the latency histogram, in seconds.
inline constexpr std::array<double, 16> forwardLatencyBounds{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                                             0.05,   0.1,   0.25,   0.5,   1,    2.5,
                                                             5,      10,    30,     120};

/// Counts by front and outcome and a latency histogram per front. Any thread.
class ForwardMetrics {
public:
    struct Latency {
        std::array<std::uint64_t, forwardLatencyBounds.size()> buckets{};  // not cumulative
        std::uint64_t overflow = 0;
        std::uint64_t sumMicroseconds = 0;
    };

    /// One request of `front` ended with `outcome`, `elapsed` after it came in.
    void record(ForwardFront front, ForwardOutcome outcome, std::chrono::steady_clock::duration elapsed);

    std::uint64_t count(ForwardFront front, ForwardOutcome outcome) const;
    Latency latency(ForwardFront front) const;

private:
    using Counter = std::atomic<std::uint64_t>;
    std::array<std::array<Counter, forwardOutcomeCount>, forwardFrontCount> counts{};
    std::array<std::array<Counter, forwardLatencyBounds.size() + 1>, forwardFrontCount> buckets{};
    std::array<Counter, forwardFrontCount> sumMicroseconds{};
};

/// Records one request exactly once: the first settle counts, later ones do
/// nothing. Made when the request comes in; not shared between threads.
class ForwardTimer {
public:
    ForwardTimer(ForwardMetrics& metrics, ForwardFront front,
                 std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now())
        : metrics(metrics), front(front), began(began)
    {
    }

    void settle(ForwardOutcome outcome);
    bool settled() const { return done; }

private:
    ForwardMetrics& metrics;
    const ForwardFront front;
    const std::chrono::steady_clock::time_point began;
    bool done = false;
};

} // namespace vlm
