// velmora-soak: runs the whole gateway (broker, simulator, host with the
// plug-in) under steady load for a while and reports what it served, what
// failed, how the plug-in came back after each simulator restart, and the
// host's memory at the start and the end. Not a test: it prints figures.
//
//   velmora-soak [--duration S] [--restart-every S] [--streams N]
//                [--http-clients N] [--telemetry-hz HZ] [--mqtt-interval-ms MS]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>

#include "e2e/GatewayStack.h"
#include "ProcessMemory.h"
#include "soak_load.h"

namespace {

struct Settings {
    int durationSeconds = 600;
    int restartEverySeconds = 120;
    int streams = 32;
    int httpClients = 4;
    double telemetryHz = 50;
    int mqttIntervalMs = 100;
};

Settings parse(int argc, char** argv)
{
    Settings s;
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            std::cout << "usage: velmora-soak [--duration S (600)] [--restart-every S (120)] [--streams N (32)]\n"
                         "                    [--http-clients N (4)] [--telemetry-hz HZ (50)] [--mqtt-interval-ms MS (100)]\n";
            std::exit(0);
        }
        if (i + 1 >= argc)
            throw std::invalid_argument(flag + " needs a value");
        const std::string value = argv[++i];
        if (flag == "--duration")
            s.durationSeconds = std::stoi(value);
        else if (flag == "--restart-every")
            s.restartEverySeconds = std::stoi(value);
        else if (flag == "--streams")
            s.streams = std::stoi(value);
        else if (flag == "--http-clients")
            s.httpClients = std::stoi(value);
        else if (flag == "--telemetry-hz")
            s.telemetryHz = std::stod(value);
        else if (flag == "--mqtt-interval-ms")
            s.mqttIntervalMs = std::max(1, std::stoi(value));
        else
            throw std::invalid_argument("unknown option " + flag);
    }
    if (s.durationSeconds < 1 || s.restartEverySeconds < 1 || s.streams < 0 || s.httpClients < 0)
        throw std::invalid_argument("durations must be positive and counts not negative");
    return s;
}

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    Settings settings;
    try {
        settings = parse(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "velmora-soak: " << e.what() << " (see --help)\n";
        return 2;
    }

    vlm::e2e::GatewayStack::Options options;
    options.telemetryHz = settings.telemetryHz;
    vlm::e2e::GatewayStack stack(options);
    try {
        stack.start();
    } catch (const std::exception& e) {
        std::cerr << "velmora-soak: " << e.what() << '\n';
        return 1;
    }
    const pid_t hostPid = stack.host->pid();
    std::printf("soak: %d s, %d event streams, %d HTTP clients, MQTT command every %d ms, telemetry %.0f Hz, "
                "simulator killed and restarted every %d s\n",
                settings.durationSeconds, settings.streams, settings.httpClients, settings.mqttIntervalMs,
                settings.telemetryHz, settings.restartEverySeconds);
    std::printf("soak: logs in %s\n", stack.dir.path.c_str());

    const auto started = std::chrono::steady_clock::now();
    vlm::soak::SoakLoad load(stack.httpPort, stack.broker.uri(), vlm::e2e::groundCommandTopic(), settings.streams,
                             settings.httpClients, settings.mqttIntervalMs);
    // Memory "at start" is taken once the load is running, so it includes the
    // streams' and requests' working set rather than an idle host.
    std::this_thread::sleep_for(std::chrono::seconds(std::min(5, settings.durationSeconds)));
    const long rssStart = vlm::e2e::residentKiB(hostPid);

    std::vector<double> reconnectSeconds;
    int restarts = 0;
    int failedReconnects = 0;
    auto nextRestart = started + std::chrono::seconds(settings.restartEverySeconds);
    auto nextReport = started + std::chrono::seconds(10);
    const auto end = started + std::chrono::seconds(settings.durationSeconds);
    const auto& c = load.counters();
    const auto& streams = load.streamCounters();
    while (std::chrono::steady_clock::now() < end && stack.host->running()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= nextRestart) {
            nextRestart += std::chrono::seconds(settings.restartEverySeconds);
            const std::uint16_t port = stack.simPort;
            stack.killSim();
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            stack.startSim(port);
            ++restarts;
            const auto listening = std::chrono::steady_clock::now();
            if (vlm::e2e::GatewayStack::waitUntil([&] { return stack.serviceLink() == "up"; }, std::chrono::seconds(30)))
                reconnectSeconds.push_back(secondsSince(listening));
            else
                ++failedReconnects;
        }
        if (now >= nextReport) {
            nextReport += std::chrono::seconds(10);
            std::printf("soak: %5.0f s  http %llu ok / %llu failed  mqtt %llu answered / %llu sent  "
                        "stream events %llu (%llu opened, %llu ended)  host RSS %ld KiB\n",
                        secondsSince(started), static_cast<unsigned long long>(c.httpServed.load()),
                        static_cast<unsigned long long>(c.httpFailed.load()),
                        static_cast<unsigned long long>(c.mqttAnswered.load()),
                        static_cast<unsigned long long>(c.mqttSent.load()),
                        static_cast<unsigned long long>(streams.events.load()),
                        static_cast<unsigned long long>(streams.opens.load()),
                        static_cast<unsigned long long>(streams.ends.load()), vlm::e2e::residentKiB(hostPid));
            std::fflush(stdout);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const bool hostSurvived = stack.host->running();
    const long rssEnd = vlm::e2e::residentKiB(hostPid);
    load.stop();
    const double elapsed = secondsSince(started);

    int hostExit = -1;
    if (hostSurvived) {
        stack.host->signal(SIGTERM);
        if (const auto status = stack.host->waitExit(std::chrono::seconds(20)); status && WIFEXITED(*status))
            hostExit = WEXITSTATUS(*status);
    }

    double worst = 0;
    double sum = 0;
    for (double s : reconnectSeconds) {
        worst = std::max(worst, s);
        sum += s;
    }
    const auto mqttUnanswered = c.mqttSent.load() > c.mqttAnswered.load() + c.mqttRefused.load()
                                    ? c.mqttSent.load() - c.mqttAnswered.load() - c.mqttRefused.load()
                                    : 0;
    std::printf("\nsoak summary after %.0f s\n", elapsed);
    std::printf("  requests served      HTTP %llu, MQTT %llu (of %llu sent)\n",
                static_cast<unsigned long long>(c.httpServed.load()),
                static_cast<unsigned long long>(c.mqttAnswered.load()),
                static_cast<unsigned long long>(c.mqttSent.load()));
    std::printf("  errors               HTTP %llu, MQTT refused %llu, MQTT unanswered %llu, stream interruptions %llu\n",
                static_cast<unsigned long long>(c.httpFailed.load()),
                static_cast<unsigned long long>(c.mqttRefused.load()),
                static_cast<unsigned long long>(mqttUnanswered),
                static_cast<unsigned long long>(streams.ends.load()));
    std::printf("  event streams        %llu opened, %llu refused before the vehicle was reported, "
                "%llu telemetry events read\n",
                static_cast<unsigned long long>(streams.opens.load()),
                static_cast<unsigned long long>(streams.refused.load()),
                static_cast<unsigned long long>(streams.events.load()));
    std::printf("  simulator restarts   %d, plug-in reconnects %zu (failed %d), link up %.2f s after listening "
                "(mean), %.2f s (worst)\n",
                restarts, reconnectSeconds.size(), failedReconnects,
                reconnectSeconds.empty() ? 0.0 : sum / static_cast<double>(reconnectSeconds.size()), worst);
    std::printf("  host RSS             %ld KiB at start, %ld KiB at end\n", rssStart, rssEnd);
    std::printf("  host                 %s, exit code %d after SIGTERM\n",
                hostSurvived ? "ran throughout" : "ENDED DURING THE RUN", hostExit);
    return hostSurvived && hostExit == 0 && failedReconnects == 0 ? 0 : 1;
}
