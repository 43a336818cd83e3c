// Load driver: how many events a second the simulator gets to one subscriber,
// a real rpc_client on loopback, counted in its handler.
//   (a) a burst of N telemetry-sized publications (publish_burst);
//   (b) the telemetry clock itself, set to a rate far above what is wanted in
//       practice, for S seconds.
// Each figure is the median of a few rounds; the machine is shared.
// Usage: sim_load [burst_events] [clock_seconds] [clock_hz]

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "event_payloads.h"
#include "rpc/rpc_client.h"
#include "simulator.h"

using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr int rounds = 3;

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Waits until `counter` reaches `target` or stops moving for two seconds.
bool wait_for_count(const std::atomic<std::size_t>& counter, std::size_t target)
{
    std::size_t last = counter.load();
    auto last_change = clock_type::now();
    while (counter.load() < target) {
        std::this_thread::sleep_for(1ms);
        const std::size_t now = counter.load();
        if (now != last) {
            last = now;
            last_change = clock_type::now();
        } else if (clock_type::now() - last_change > 2s) {
            return false;
        }
    }
    return true;
}

struct subscriber {
    std::atomic<std::size_t> received{0};
    pilot_rpc::rpc_client client;

    bool attach(unsigned short port)
    {
        if (!client.connect("127.0.0.1", port, false, 3))
            return false;
        client.subscribe("pushTelemetry", [this](std::string_view) { received.fetch_add(1, std::memory_order_relaxed); });
        // Answered after the subscription frame on the same link: it has arrived.
        client.call<5000, int>("getIntConfig", std::string("station.app_type"));
        return true;
    }
};

double burst_rate(pilot_sim::simulator& sim, unsigned short port, std::size_t events, const std::string& payload)
{
    subscriber sub;
    if (!sub.attach(port))
        return 0.0;
    const auto start = clock_type::now();
    sim.publish_burst("pushTelemetry", payload, events);
    if (!wait_for_count(sub.received, events))
        std::fprintf(stderr, "burst: only %zu of %zu events arrived\n", sub.received.load(), events);
    return static_cast<double>(sub.received.load()) / std::chrono::duration<double>(clock_type::now() - start).count();
}

double clock_rate(pilot_sim::simulator& sim, unsigned short port, double seconds, double hz)
{
    subscriber sub;
    if (!sub.attach(port))
        return 0.0;
    sim.set_telemetry_rate(hz);
    const auto start = clock_type::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    sim.set_telemetry_rate(0.0);
    const std::size_t sent_window = sub.received.load();
    const double elapsed = std::chrono::duration<double>(clock_type::now() - start).count();
    return static_cast<double>(sent_window) / elapsed;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::size_t events = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 500000;
    const double seconds = argc > 2 ? std::strtod(argv[2], nullptr) : 2.0;
    const double hz = argc > 3 ? std::strtod(argv[3], nullptr) : 200000.0;

    pilot_sim::simulator_options options;
    options.telemetry_hz = 0.0;
    options.log = [](const std::string&) {};
    pilot_sim::simulator sim(options);
    const unsigned short port = sim.start();
    const pilot_sim::vehicle_state state = sim.vehicle();
    const std::string payload = pilot_sim::telemetry_payload(state, "SIM-UAV-0001", 1, pilot_sim::wall_clock_ms());

    std::vector<double> bursts;
    std::vector<double> clocks;
    for (int round = 0; round < rounds; ++round) {
        bursts.push_back(burst_rate(sim, port, events, payload));
        clocks.push_back(clock_rate(sim, port, seconds, hz));
    }
    std::printf("payload %zu bytes, one subscriber on loopback, median of %d rounds\n", payload.size(), rounds);
    std::printf("  burst of %zu events:           %10.0f events/s\n", events, median(bursts));
    std::printf("  telemetry clock at %.0f Hz:  %10.0f events/s\n", hz, median(clocks));
    sim.stop();
    return 0;
}
