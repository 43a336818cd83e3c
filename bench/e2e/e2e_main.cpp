// velmora-bench-e2e: what the gateway adds, measured on the real stack
// (mosquitto, pilot-sim, velmora-host with the plug-in) beside floors taken
// in the same run, and what the host costs. Prints one table; not a test.
//
//   velmora-bench-e2e [--commands N] [--idle-seconds S] [--load-seconds S]
//                     [--streams N] [--telemetry-hz HZ] [--khz-seconds S]

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <thread>

#include "CommandTrips.h"
#include "E2eSettings.h"
#include "Figures.h"
#include "ProcessCpu.h"
#include "TelemetryWatch.h"
#include "e2e/GatewayStack.h"
#include "ProcessMemory.h"

namespace {

using namespace vlm::bench;

// The pause after every forwarded HTTP answer, kept on purpose.
constexpr double answerPauseMs = 50;
constexpr double streamPollMs = 80;
const auto startBound = std::chrono::seconds(20);

struct Usage {
    double cpuPercent = 0;
    double rssMiB = 0;
};

Usage usageOver(pid_t pid, int seconds)
{
    Usage u;
    u.cpuPercent = cpuPercentOver(pid, std::chrono::seconds(seconds));
    u.rssMiB = static_cast<double>(vlm::e2e::residentKiB(pid)) / 1024.0;
    return u;
}

void line(const char* figure, const Spread& measured, const Spread& floor, double goal50, double goal99)
{
    const double add50 = measured.p50 - floor.p50;
    const double add99 = measured.p99 - floor.p99;
    std::printf("| %s | %.2f / %.2f | %.2f / %.2f | %+.2f / %+.2f | <= %.1f / %.1f | %s |\n", figure, measured.p50,
                measured.p99, floor.p50, floor.p99, add50, add99, goal50, goal99,
                verdict(add50 <= goal50 && add99 <= goal99));
}

Spread minus(const Spread& a, const Spread& b, double constant = 0)
{
    return {a.p50 - b.p50 - constant, a.p99 - b.p99 - constant, a.count};
}

Spread plus(const Spread& a, const Spread& b)
{
    return {a.p50 + b.p50, a.p99 + b.p99, a.count};
}

void printCommands(const CommandTrips& t)
{
    const Spread rpc = spreadOf(t.rpcEcho.ms);
    // The simulator's own time: its raw call less the transport's ping-pong.
    Spread simOwn = minus(spreadOf(t.simCall.ms), rpc);
    simOwn.p50 = std::max(0.0, simOwn.p50);
    simOwn.p99 = std::max(0.0, simOwn.p99);
    std::printf("\nraw round trips, ms (p50 / p99, count, failed):\n");
    const auto raw = [](const char* what, const Trips& trips) {
        const Spread s = spreadOf(trips.ms);
        std::printf("  %-44s %8.3f / %8.3f  %5zu  %d\n", what, s.p50, s.p99, s.count, trips.failed);
    };
    raw("HTTP command through the gateway", t.http);
    raw("MQTT command through the gateway", t.mqtt);
    raw("POCO HTTP echo", t.httpEcho);
    raw("MQTT publish + echo through the same broker", t.mqttEcho);
    raw("the same, echoed at QoS 2 like the gateway", t.mqttEchoQos2);
    raw("raw RPC frame ping-pong (echo socket)", t.rpcEcho);
    raw("raw RPC call of the simulator", t.simCall);
    std::printf("  simulator's own time (raw call less ping-pong)  %8.3f / %8.3f\n", simOwn.p50, simOwn.p99);

    std::printf("\n| figure | measured p50 / p99 ms | floor p50 / p99 ms | added p50 / p99 ms | goal (added) | |\n"
                "|---|---|---|---|---|---|\n");
    line("command over HTTP, less 50 ms pause and simulator", minus(spreadOf(t.http.ms), simOwn, answerPauseMs),
         plus(spreadOf(t.httpEcho.ms), rpc), 0.5, 2.0);
    line("command over MQTT, less simulator", minus(spreadOf(t.mqtt.ms), simOwn), plus(spreadOf(t.mqttEcho.ms), rpc),
         0.5, 2.0);
    line("the same against a QoS 2 echo", minus(spreadOf(t.mqtt.ms), simOwn), plus(spreadOf(t.mqttEchoQos2.ms), rpc),
         0.5, 2.0);
}

} // namespace

int main(int argc, char** argv)
{
    E2eSettings settings;
    try {
        bool help = false;
        settings = parseE2eSettings(argc, argv, help);
        if (help) {
            std::cout << e2eUsage();
            return 0;
        }
    } catch (const std::exception& e) {
        std::cerr << "velmora-bench-e2e: " << e.what() << "\n" << e2eUsage();
        return 2;
    }

    vlm::e2e::GatewayStack::Options options;
    options.telemetryHz = 0;  // idle first; the load phase turns it on
    options.simControl = true;
    options.simArgs = {"--stamp-publish-time"};
    if (settings.brokerNoDelay)
        options.brokerConfig = "set_tcp_nodelay true";
    vlm::e2e::GatewayStack stack(options);
    try {
        stack.start();
    } catch (const std::exception& e) {
        std::cerr << "velmora-bench-e2e: " << e.what() << '\n';
        return 1;
    }
    const pid_t host = stack.host->pid();
    std::printf("velmora-bench-e2e: %ld cores, broker set_tcp_nodelay %s, logs in %s\n",
                ::sysconf(_SC_NPROCESSORS_ONLN), settings.brokerNoDelay ? "true" : "false (default)",
                stack.dir.path.c_str());
    std::fflush(stdout);

    // Idle: the vehicle link up, no clients, no telemetry; heartbeats go on.
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const Usage idle = usageOver(host, settings.idleSeconds);

    const CommandTrips trips = measureCommandTrips(stack, settings.commands);

    TelemetryWatch watch(stack.broker.uri(), vlm::e2e::stationTopic());
    stack.simCommand("telemetry-hz " + std::to_string(settings.telemetryHz));
    if (!vlm::e2e::GatewayStack::waitUntil([&] { return watch.sawTelemetry(); }, startBound)) {
        std::cerr << "velmora-bench-e2e: no telemetry arrived\n" << stack.diagnostics();
        return 1;
    }
    watch.openStreams(stack.httpPort, settings.streams);
    watch.startFloor(settings.telemetryHz);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    watch.record(true);
    const Usage loaded = usageOver(host, settings.loadSeconds);
    watch.record(false);
    watch.stopFloor();
    const auto load = watch.recorded();

    stack.simCommand("telemetry-hz 1000");
    std::this_thread::sleep_for(std::chrono::seconds(2));
    watch.record(true);
    const Usage khz = usageOver(host, settings.khzSeconds);
    // Samples still on their way when the window closes are not drops.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    watch.record(false);
    const auto fast = watch.recorded();
    watch.stop();
    stack.simCommand("telemetry-hz 0");

    printCommands(trips);
    const Spread age = spreadOf(load.mqttAgeMs);
    const Spread direct = spreadOf(load.floorAgeMs);
    const Spread stream = spreadOf(load.streamDelayMs);
    std::printf("| telemetry age to an MQTT subscriber, %.0f Hz, %d streams (%zu samples) | %.2f / %.2f | %.2f / %.2f "
                "(%zu direct) | %+.2f / %+.2f | p99 <= 1.0 | %s |\n",
                settings.telemetryHz, settings.streams, age.count, age.p50, age.p99, direct.p50, direct.p99,
                direct.count, age.p50 - direct.p50, age.p99 - direct.p99, verdict(age.p99 - direct.p99 <= 1.0));
    std::printf("| stream delivery delay (%zu events, %llu streams opened) | %.2f / %.2f | poll %.0f | %+.2f / %+.2f | "
                "p99 <= 85 | %s |\n",
                stream.count, static_cast<unsigned long long>(load.streamOpens), stream.p50, stream.p99, streamPollMs,
                stream.p50 - streamPollMs, stream.p99 - streamPollMs, verdict(stream.count > 0 && stream.p99 <= 85.0));

    const std::uint64_t expected = fast.lastSeq >= fast.firstSeq && fast.mqttSamples ? fast.lastSeq - fast.firstSeq + 1 : 0;
    // Above 1 kHz a wake-up may carry two samples with one "seq", so more may
    // arrive than the span counts; that is not a negative drop.
    const long long dropped =
        std::max(0LL, static_cast<long long>(expected) - static_cast<long long>(fast.mqttSamples));
    std::printf("\n| host | CPU, %% of a core | RSS MiB | goal | |\n|---|---|---|---|---|\n");
    std::printf("| idle (no clients, no telemetry), %d s | %.2f | %.1f | CPU <= 1%% | %s |\n", settings.idleSeconds,
                idle.cpuPercent, idle.rssMiB, verdict(idle.cpuPercent >= 0 && idle.cpuPercent <= 1.0));
    std::printf("| %.0f Hz telemetry, %d streams, %d s | %.2f | %.1f | RSS <= 25 MiB | %s |\n", settings.telemetryHz,
                settings.streams, settings.loadSeconds, loaded.cpuPercent, loaded.rssMiB,
                verdict(loaded.rssMiB <= 25.0));
    std::printf("| 1 kHz telemetry, %d streams, %d s | %.2f | %.1f | | |\n", settings.streams, settings.khzSeconds,
                khz.cpuPercent, khz.rssMiB);
    std::printf("\n| telemetry at 1 kHz | published (seq span) | arrived on MQTT | dropped | goal | |\n"
                "|---|---|---|---|---|---|\n");
    std::printf("| %d s | %llu | %llu | %lld | none | %s |\n", settings.khzSeconds,
                static_cast<unsigned long long>(expected), static_cast<unsigned long long>(fast.mqttSamples), dropped,
                verdict(expected > 0 && dropped <= 0));
    std::printf("peak host RSS (VmHWM) %.1f MiB\n", static_cast<double>(vlm::e2e::peakResidentKiB(host)) / 1024.0);

    stack.host->signal(SIGTERM);
    stack.host->waitExit(std::chrono::seconds(10));
    return 0;
}
