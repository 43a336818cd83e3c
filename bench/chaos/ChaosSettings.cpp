#include "ChaosSettings.h"

#include <functional>
#include <map>
#include <stdexcept>

namespace vlm::chaos {

std::string usage()
{
    return "usage: velmora-chaos [options]\n"
           "Runs mosquitto, pilot-sim and velmora-host with the plug-in on loopback under load while a\n"
           "fault schedule fires, then checks that every request and command got exactly one answer or\n"
           "a documented refusal, that the host's memory stayed bounded, and that it ran throughout and\n"
           "stopped cleanly. Exit code 0 when every check holds, 1 when one failed, 2 for a bad command line.\n"
           "\n"
           "  --duration S            length of the run (600)\n"
           "  --streams N             pushTelemetry event streams kept open (8)\n"
           "  --bus-taps N            bus tap streams kept open (1)\n"
           "  --http-clients N        ground apps posting requests (4)\n"
           "  --telemetry-hz HZ       simulator telemetry rate (50)\n"
           "  --mqtt-interval-ms MS   one MQTT command every MS ms between faults (50)\n"
           "  --burst N               MQTT commands in one burst (1000)\n"
           "  --max-rss-growth-mib M  host peak RSS may exceed its RSS under load before the first fault by M MiB (384)\n"
           "  --fault-every S         seconds between faults (default: spread over the run, 3 to 8 s)\n"
           "  --keep-logs DIR         copy the host's, the simulator's and the broker's logs to DIR\n"
           "\n"
           "examples:\n"
           "  velmora-chaos                 # the full 10 minutes\n"
           "  velmora-chaos --duration 60   # the CI version\n";
}

std::optional<Settings> parseSettings(int argc, char** argv)
{
    Settings s;
    const std::map<std::string, std::function<void(const std::string&)>> options{
        {"--duration", [&s](const std::string& v) { s.durationSeconds = std::stoi(v); }},
        {"--streams", [&s](const std::string& v) { s.streams = std::stoi(v); }},
        {"--bus-taps", [&s](const std::string& v) { s.busTaps = std::stoi(v); }},
        {"--http-clients", [&s](const std::string& v) { s.httpClients = std::stoi(v); }},
        {"--telemetry-hz", [&s](const std::string& v) { s.telemetryHz = std::stod(v); }},
        {"--mqtt-interval-ms", [&s](const std::string& v) { s.mqttIntervalMs = std::stoi(v); }},
        {"--burst", [&s](const std::string& v) { s.burst = std::stoi(v); }},
        {"--max-rss-growth-mib", [&s](const std::string& v) { s.maxRssGrowthMiB = std::stol(v); }},
        {"--fault-every", [&s](const std::string& v) { s.faultEverySeconds = std::stod(v); }},
        {"--keep-logs", [&s](const std::string& v) { s.keepLogs = v; }},
    };
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h")
            return std::nullopt;
        const auto option = options.find(flag);
        if (option == options.end())
            throw std::invalid_argument("unknown option " + flag);
        if (i + 1 >= argc)
            throw std::invalid_argument(flag + " needs a value");
        const std::string value = argv[++i];
        try {
            option->second(value);
        } catch (const std::logic_error&) {
            throw std::invalid_argument(flag + ": not a number: " + value);
        }
    }
    if (s.durationSeconds < 20 || s.durationSeconds > 86400)
        throw std::invalid_argument("--duration must be from 20 to 86400 s");
    if (s.streams < 0 || s.streams > 40 || s.busTaps < 0 || s.busTaps > 4 || s.httpClients < 0 || s.httpClients > 16)
        throw std::invalid_argument("at most 40 streams, 4 bus taps and 16 HTTP clients (the host serves 64 at once)");
    if (s.telemetryHz <= 0 || s.telemetryHz > 1000 || s.mqttIntervalMs < 1 || s.mqttIntervalMs > 60000)
        throw std::invalid_argument("--telemetry-hz from 0 to 1000, --mqtt-interval-ms from 1 to 60000");
    if (s.burst < 1 || s.burst > 100000 || s.maxRssGrowthMiB < 1)
        throw std::invalid_argument("--burst from 1 to 100000, --max-rss-growth-mib at least 1");
    if (s.faultEverySeconds < 0)
        throw std::invalid_argument("--fault-every must not be negative");
    return s;
}

} // namespace vlm::chaos
