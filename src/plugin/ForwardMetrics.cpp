#include "ForwardMetrics.h"

#include <algorithm>

namespace vlm {

const char* forwardFrontName(ForwardFront front)
{
    switch (front) {
    case ForwardFront::http:
        return "http";
    case ForwardFront::mqtt:
        return "mqtt";
    case ForwardFront::bus:
        return "bus";
    }
    return "unknown";
}

const char* forwardOutcomeName(ForwardOutcome outcome)
{
    switch (outcome) {
    case ForwardOutcome::answered:
        return "answered";
    case ForwardOutcome::apiNotExist:
        return "-1";
    case ForwardOutcome::vehicleNotConnected:
        return "4001";
    case ForwardOutcome::serviceCallFailed:
        return "4002";
    case ForwardOutcome::linkError:
        return "link_error";
    }
    return "unknown";
}

void ForwardMetrics::record(ForwardFront front, ForwardOutcome outcome, std::chrono::steady_clock::duration elapsed)
{
    const auto f = static_cast<std::size_t>(front);
    counts[f][static_cast<std::size_t>(outcome)].fetch_add(1, std::memory_order_relaxed);
    const double seconds = std::chrono::duration<double>(elapsed).count();
    const auto bound = std::lower_bound(forwardLatencyBounds.begin(), forwardLatencyBounds.end(), seconds);
    buckets[f][static_cast<std::size_t>(bound - forwardLatencyBounds.begin())].fetch_add(1, std::memory_order_relaxed);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
    sumMicroseconds[f].fetch_add(static_cast<std::uint64_t>(std::max<decltype(micros)>(0, micros)),
                                 std::memory_order_relaxed);
}

std::uint64_t ForwardMetrics::count(ForwardFront front, ForwardOutcome outcome) const
{
    return counts[static_cast<std::size_t>(front)][static_cast<std::size_t>(outcome)].load(std::memory_order_relaxed);
}

ForwardMetrics::Latency ForwardMetrics::latency(ForwardFront front) const
{
    const auto f = static_cast<std::size_t>(front);
    Latency snapshot;
    for (std::size_t i = 0; i < forwardLatencyBounds.size(); ++i)
        snapshot.buckets[i] = buckets[f][i].load(std::memory_order_relaxed);
    snapshot.overflow = buckets[f][forwardLatencyBounds.size()].load(std::memory_order_relaxed);
    snapshot.sumMicroseconds = sumMicroseconds[f].load(std::memory_order_relaxed);
    return snapshot;
}

void ForwardTimer::settle(ForwardOutcome outcome)
{
    if (done)
        return;
    done = true;
    metrics.record(front, outcome, std::chrono::steady_clock::now() - began);
}

} // namespace vlm
