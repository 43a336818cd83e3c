#pragma once

// One fleet of N stations on this machine: each a broker, a simulator and a
// host with the plug-in, each broker bridged to one cloud mosquitto for the
// station's own topic only, as a station bridges to its cloud. A cloud
// client commands every station over its command topic at once (one command
// in flight per station) and times the answers; an observer on every station
// broker checks that no station sees another's commands.

#include <cstdint>
#include <string>
#include <vector>

namespace vlm::bench {

struct FleetSettings {
    int commandsPerStation = 50;
    int secondsPerFleet = 60;  ///< bound of one fleet's command phase
    double telemetryHz = 1;
    bool brokerNoDelay = false;  ///< station brokers send without Nagle's delay
};

struct FleetResult {
    int stations = 0;
    int sent = 0;
    std::vector<double> answerMs;
    int unanswered = 0;
    double seconds = 0;
    std::uint64_t misrouted = 0;  ///< answers on another station's topic or not from the addressed one
    std::uint64_t foreign = 0;    ///< commands a station's broker carried for another station
    std::uint64_t stray = 0;      ///< answers that matched no waiting command (late or repeated)
    std::string error;            ///< set when the fleet could not be set up
};

/// Starts the fleet, commands it, stops it; every process it started is gone
/// when it returns.
FleetResult runFleet(int stations, const FleetSettings& settings);

} // namespace vlm::bench
