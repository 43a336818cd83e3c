#pragma once

#include <optional>
#include <string>

namespace vlm::chaos {

/// What one chaos run does; every number has a bound-checked default.
struct Settings {
    int durationSeconds = 600;
    int streams = 8;            ///< pushTelemetry event streams kept open
    int busTaps = 1;            ///< GET /host/bus streams kept open
    int httpClients = 4;        ///< ground apps posting requests
    double telemetryHz = 50;
    int mqttIntervalMs = 50;    ///< one regular MQTT command every so often
    int burst = 1000;           ///< commands in one burst
    long maxRssGrowthMiB = 384; ///< host peak RSS over its RSS under load before the first fault
    double faultEverySeconds = 0;  ///< 0: spread the faults over the run
    std::string keepLogs;          ///< when set, the processes' logs are copied to this folder
};

/// The usage text for --help.
std::string usage();

/// Reads the command line; nothing when it asked for --help. Throws
/// std::invalid_argument with the reason on a bad one.
std::optional<Settings> parseSettings(int argc, char** argv);

} // namespace vlm::chaos
