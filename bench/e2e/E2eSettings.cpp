#include "E2eSettings.h"

#include <stdexcept>

namespace vlm::bench {

std::string e2eUsage()
{
    return "usage: velmora-bench-e2e [--commands N (200)] [--idle-seconds S (10)] [--load-seconds S (30)]\n"
           "                         [--streams N (32)] [--telemetry-hz HZ (50)] [--khz-seconds S (10)]\n"
           "                         [--broker-nodelay]\n";
}

E2eSettings parseE2eSettings(int argc, char** argv, bool& help)
{
    E2eSettings s;
    help = false;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            help = true;
            return s;
        }
        if (flag == "--broker-nodelay") {
            s.brokerNoDelay = true;
            continue;
        }
        if (i + 1 >= argc)
            throw std::invalid_argument(flag + " needs a value");
        const std::string value = argv[++i];
        if (flag == "--commands")
            s.commands = std::stoi(value);
        else if (flag == "--idle-seconds")
            s.idleSeconds = std::stoi(value);
        else if (flag == "--load-seconds")
            s.loadSeconds = std::stoi(value);
        else if (flag == "--streams")
            s.streams = std::stoi(value);
        else if (flag == "--telemetry-hz")
            s.telemetryHz = std::stod(value);
        else if (flag == "--khz-seconds")
            s.khzSeconds = std::stoi(value);
        else
            throw std::invalid_argument("unknown option " + flag);
    }
    // Bounds keep one run within minutes on a shared machine.
    if (s.commands < 10 || s.commands > 100000 || s.idleSeconds < 1 || s.idleSeconds > 600 || s.loadSeconds < 2 ||
        s.loadSeconds > 600 || s.streams < 0 || s.streams > 256 || s.telemetryHz <= 0 || s.telemetryHz > 1000 ||
        s.khzSeconds < 1 || s.khzSeconds > 600)
        throw std::invalid_argument("a value is out of its range (see --help)");
    return s;
}

} // namespace vlm::bench
