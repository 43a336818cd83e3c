// velmora-bench-fleet: fleets of N stations on this machine (broker,
// simulator and host each) bridged to one cloud broker, commanded from the
// cloud. Prints commands a second, p50 and p99 and isolation per N; not a test.
//
//   velmora-bench-fleet [--stations 1,8,16] [--commands N] [--seconds S] [--telemetry-hz HZ]

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Figures.h"
#include "FleetRun.h"

namespace {

using namespace vlm::bench;

void usage()
{
    std::cout << "usage: velmora-bench-fleet [--stations LIST (1,8,16)] [--commands N per station (50)]\n"
                 "                           [--seconds S per fleet (60)] [--telemetry-hz HZ (1)] [--broker-nodelay]\n";
}

std::vector<int> parseList(const std::string& text)
{
    std::vector<int> values;
    std::istringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        const int value = std::stoi(item);
        if (value < 1 || value > 32)
            throw std::invalid_argument("station counts go from 1 to 32");
        values.push_back(value);
    }
    if (values.empty())
        throw std::invalid_argument("--stations needs a list");
    return values;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<int> fleets{1, 8, 16};
    FleetSettings settings;
    try {
        for (int i = 1; i < argc; ++i) {
            const std::string flag = argv[i];
            if (flag == "--help" || flag == "-h") {
                usage();
                return 0;
            }
            if (flag == "--broker-nodelay") {
                settings.brokerNoDelay = true;
                continue;
            }
            if (i + 1 >= argc)
                throw std::invalid_argument(flag + " needs a value");
            const std::string value = argv[++i];
            if (flag == "--stations")
                fleets = parseList(value);
            else if (flag == "--commands")
                settings.commandsPerStation = std::stoi(value);
            else if (flag == "--seconds")
                settings.secondsPerFleet = std::stoi(value);
            else if (flag == "--telemetry-hz")
                settings.telemetryHz = std::stod(value);
            else
                throw std::invalid_argument("unknown option " + flag);
        }
        if (settings.commandsPerStation < 1 || settings.commandsPerStation > 10000 || settings.secondsPerFleet < 1 ||
            settings.secondsPerFleet > 600 || settings.telemetryHz < 0 || settings.telemetryHz > 1000)
            throw std::invalid_argument("a value is out of its range (see --help)");
    } catch (const std::exception& e) {
        std::cerr << "velmora-bench-fleet: " << e.what() << '\n';
        usage();
        return 2;
    }

    std::printf("velmora-bench-fleet: %ld cores, %d commands per station (one in flight each), telemetry %.0f Hz, "
                "station brokers' set_tcp_nodelay %s\n",
                ::sysconf(_SC_NPROCESSORS_ONLN), settings.commandsPerStation, settings.telemetryHz,
                settings.brokerNoDelay ? "true" : "false (default)");
    std::fflush(stdout);
    std::vector<FleetResult> results;
    for (const int stations : fleets) {
        results.push_back(runFleet(stations, settings));
        if (!results.back().error.empty()) {
            std::cerr << "velmora-bench-fleet: N = " << stations << ": " << results.back().error << '\n';
            return 1;
        }
    }

    std::printf("\n| stations | commands answered / sent | commands/s | p50 ms | p99 ms | isolation |\n"
                "|---|---|---|---|---|---|\n");
    for (const auto& r : results) {
        const Spread s = spreadOf(r.answerMs);
        const bool isolated = r.misrouted == 0 && r.foreign == 0 && r.stray == 0;
        std::printf("| %d | %zu / %d | %.1f | %.2f | %.2f | %s (misrouted %llu, foreign %llu, stray %llu) |\n",
                    r.stations, r.answerMs.size(), r.sent, r.seconds > 0 ? static_cast<double>(r.answerMs.size()) / r.seconds : 0,
                    s.p50, s.p99, isolated ? "held" : "BROKEN", static_cast<unsigned long long>(r.misrouted),
                    static_cast<unsigned long long>(r.foreign), static_cast<unsigned long long>(r.stray));
    }
    const FleetResult* one = nullptr;
    const FleetResult* most = nullptr;
    for (const auto& r : results) {
        if (r.stations == 1)
            one = &r;
        if (!most || r.stations > most->stations)
            most = &r;
    }
    if (one && most && most != one) {
        const double p99One = spreadOf(one->answerMs).p99;
        const double p99Most = spreadOf(most->answerMs).p99;
        std::printf("\np99 at N = %d is %.2fx p99 at N = 1 (goal: within 2x): %s\n", most->stations,
                    p99One > 0 ? p99Most / p99One : 0, verdict(p99One > 0 && p99Most <= 2 * p99One));
    }
    return 0;
}
