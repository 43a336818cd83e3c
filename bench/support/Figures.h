#pragma once

// Latency samples and how a driver prints them: p50 and p99 of a set of
// samples, and a verdict against a goal.

#include <cstddef>
#include <string>
#include <vector>

namespace vlm::bench {

/// p50 and p99 of a set of samples, in the samples' unit (milliseconds in
/// the drivers).
struct Spread {
    double p50 = 0;
    double p99 = 0;
    std::size_t count = 0;
};

/// The value below which the share `p` (0..1) of the samples lie; 0 for none.
double percentile(std::vector<double> samples, double p);

Spread spreadOf(const std::vector<double>& samples);

/// "met" or "NOT met".
const char* verdict(bool met);

/// Seconds since the epoch as microseconds, the clock the simulator stamps
/// telemetry with (same machine, so publisher and reader share it).
long long wallMicros();

/// The number after `"key":` in a JSON text, or -1 when it has none.
long long numberAfterKey(const std::string& text, const std::string& key);

} // namespace vlm::bench
