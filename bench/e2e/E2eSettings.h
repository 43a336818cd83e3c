#pragma once

#include <string>

namespace vlm::bench {

/// What one run of velmora-bench-e2e does; every phase is bounded by these.
struct E2eSettings {
    int commands = 200;        ///< round trips of each kind (gateway and floors)
    int idleSeconds = 10;      ///< host CPU measured with no clients and no telemetry
    int loadSeconds = 30;      ///< telemetry age and stream delay measured for this long
    int streams = 32;          ///< event streams open during the load
    double telemetryHz = 50;   ///< telemetry rate during the load
    int khzSeconds = 10;       ///< telemetry at 1 kHz counted for this long
    bool brokerNoDelay = false; ///< the broker sends without Nagle's delay (set_tcp_nodelay)
};

/// Parses the command line; throws std::invalid_argument naming the flag.
/// `help` is set for --help.
E2eSettings parseE2eSettings(int argc, char** argv, bool& help);

std::string e2eUsage();

} // namespace vlm::bench
