#include "ChaosRun.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include <Poco/File.h>

#include "ProcessMemory.h"

namespace vlm::chaos {
namespace {

using Clock = std::chrono::steady_clock;

// The broker restart comes last: its quiet time waits for every answer
// still due, which in a short run would push the faults after it out.
constexpr FaultKind faultCycle[faultKindCount] = {
    FaultKind::commandBurst,         FaultKind::badFrameZeroLength, FaultKind::oversizeCommandSmall,
    FaultKind::busFlood,             FaultKind::simulatorRestart,   FaultKind::malformedPublication,
    FaultKind::oversizeCommandLarge, FaultKind::vehicleDownUp,      FaultKind::busFloodBig,
    FaultKind::badFrameBadType,      FaultKind::simulatorBusFlood,  FaultKind::badFrameOversize,
    FaultKind::brokerRestart,
};

// Sizes of the oversize commands: above the host's MQTT size limit (1 MiB
// by default), and the larger one above the RPC link's frame limit too.
constexpr std::size_t smallOversizeBytes = 2u << 20;
constexpr std::size_t largeOversizeBytes = 12u << 20;
constexpr int busFloodCount = 2000;
constexpr std::size_t busFloodBytes = 300;
constexpr int bigBusFloodCount = 16;
// Below the host's 1 MiB body limit: big messages the bus must take.
constexpr std::size_t bigBusFloodBytes = 900u << 10;
constexpr int simulatorBusMessages = 200;
const char* const groundApis[] = {"getConfig", "getTargetPoints"};

constexpr double simDownBeforeRestart = 1.0;
constexpr int simStartAttemptLimit = 10;
constexpr double reconnectBound = 30;
// The plug-in publishes answers one at a time at QoS 2, a few dozen a
// second: a burst's answers take a while. The end waits as long as answers
// still come, within a bound; a broker kill waits for them too.
constexpr double drainStallSeconds = 15;
constexpr double drainBoundSeconds = 120;
constexpr auto quiesceBound = std::chrono::seconds(60);
constexpr auto brokerBound = std::chrono::seconds(20);
constexpr auto probeBound = std::chrono::seconds(15);
constexpr auto stopBound = std::chrono::seconds(20);

bool needsSimulator(FaultKind kind)
{
    switch (kind) {
    case FaultKind::badFrameZeroLength:
    case FaultKind::badFrameBadType:
    case FaultKind::badFrameOversize:
    case FaultKind::malformedPublication:
    case FaultKind::vehicleDownUp:
    case FaultKind::simulatorBusFlood:
    case FaultKind::simulatorRestart:
    case FaultKind::brokerRestart:  // not during a simulator restart: one window at a time
        return true;
    default:
        return false;
    }
}

e2e::GatewayStack::Options stackOptions(const Settings& settings)
{
    e2e::GatewayStack::Options options;
    options.telemetryHz = settings.telemetryHz;
    options.simControl = true;
    return options;
}

} // namespace

const char* faultName(FaultKind kind)
{
    switch (kind) {
    case FaultKind::commandBurst: return "MQTT command burst";
    case FaultKind::badFrameZeroLength: return "sim bad frame, zero-length";
    case FaultKind::oversizeCommandSmall: return "MQTT command of 2 MiB";
    case FaultKind::busFlood: return "bus flood, 2000 x 300 B";
    case FaultKind::simulatorRestart: return "simulator killed, restarted";
    case FaultKind::malformedPublication: return "sim malformed publication";
    case FaultKind::oversizeCommandLarge: return "MQTT command of 12 MiB";
    case FaultKind::vehicleDownUp: return "vehicle down for 2 s";
    case FaultKind::busFloodBig: return "bus flood, 16 x 900 KiB";
    case FaultKind::brokerRestart: return "broker killed, restarted";
    case FaultKind::badFrameBadType: return "sim bad frame, bad type";
    case FaultKind::simulatorBusFlood: return "sim to-bus flood, 200";
    case FaultKind::badFrameOversize: return "sim bad frame, oversize";
    }
    return "?";
}

ChaosRun::ChaosRun(Settings s) : settings(s), stack(stackOptions(s)) {}

ChaosRun::~ChaosRun()
{
    stopFloods = true;
    for (auto& flood : floods) {
        if (flood.joinable())
            flood.join();
    }
}

double ChaosRun::now() const
{
    return std::chrono::duration<double>(Clock::now() - started).count();
}

int ChaosRun::run()
{
    try {
        stack.start();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "velmora-chaos: the stack did not start: %s\n", e.what());
        return 1;
    }
    hostPid = stack.host->pid();
    std::printf("chaos: %d s; %d telemetry streams, %d bus taps, %d HTTP clients, an MQTT command every %d ms, "
                "telemetry %.0f Hz; logs in %s\n",
                settings.durationSeconds, settings.streams, settings.busTaps, settings.httpClients,
                settings.mqttIntervalMs, settings.telemetryHz, stack.dir.path.c_str());
    std::fflush(stdout);
    if (!connectProbe()) {
        std::fprintf(stderr, "velmora-chaos: no MQTT client could connect to %s\n", stack.broker.uri().c_str());
        return 1;
    }
    telemetryStreams =
        std::make_unique<e2e::StreamReaders>(stack.httpPort, "/index/api/pilot/pushTelemetry", settings.streams);
    busTaps = std::make_unique<e2e::StreamReaders>(stack.httpPort, "/host/bus", settings.busTaps);
    groundApps = std::make_unique<GroundApps>(stack.httpPort, settings.httpClients, groundHttp);

    const double spacing = settings.faultEverySeconds > 0
                               ? settings.faultEverySeconds
                               : std::clamp((settings.durationSeconds - 10.0) / faultKindCount, 3.0, 8.0);
    std::vector<std::pair<double, FaultKind>> schedule;
    for (double at = spacing; at <= settings.durationSeconds - 10.0 + 1e-6; at += spacing)
        schedule.emplace_back(at, faultCycle[schedule.size() % faultKindCount]);

    std::size_t next = 0;
    while (now() < settings.durationSeconds && hostAlive) {
        tick();
        if (next < schedule.size() && now() >= schedule[next].first) {
            const FaultKind kind = schedule[next].second;
            const bool blocked = (needsSimulator(kind) && !simAvailable()) || simDownSince.has_value();
            if (!blocked) {
                if (rssStartKiB == 0)
                    rssStartKiB = e2e::residentKiB(hostPid);
                fire(kind);
                ++next;
            }
        }
        if (!quiesced && now() >= nextCommandAt) {
            sendCommand(CommandKind::regular);
            nextCommandAt = now() + settings.mqttIntervalMs / 1000.0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (; next < schedule.size(); ++next)
        ++faults[schedule[next].second].skipped;
    finish();
    return report();
}

void ChaosRun::tick()
{
    sampleHost();
    for (auto it = later.begin(); it != later.end();) {
        if (now() >= it->first) {
            auto step = std::move(it->second);
            it = later.erase(it);
            step();
        } else {
            ++it;
        }
    }
    advanceSimulatorRestart();
    if (now() >= nextProgress) {
        nextProgress += 10;
        std::printf("chaos: %4.0f s  http %llu answered / %llu without answer  mqtt %zu awaiting answers  "
                    "stream events %llu  host RSS %ld KiB\n",
                    now(), static_cast<unsigned long long>(groundHttp.total() + busHttp.total()),
                    static_cast<unsigned long long>(groundHttp.count(HttpClass::noAnswer) +
                                                    busHttp.count(HttpClass::noAnswer)),
                    ledger.outstanding(), static_cast<unsigned long long>(telemetryStreams->counters().events.load()),
                    e2e::residentKiB(hostPid));
        std::fflush(stdout);
    }
}

void ChaosRun::sampleHost()
{
    if (!hostAlive)
        return;
    if (!stack.host->running()) {
        hostAlive = false;
        hostEndedAt = now();
        return;
    }
    if (now() >= nextRssSample) {
        nextRssSample = now() + 0.25;
        rssPeakSampledKiB = std::max(rssPeakSampledKiB, e2e::residentKiB(hostPid));
    }
    if (now() >= nextHealthSample) {
        nextHealthSample = now() + 1.0;
        if (const auto report = stack.health()) {
            healthEnd = healthNumbers(report);
            if (!healthStartTaken) {
                healthStart = healthEnd;
                healthStartTaken = true;
            }
        }
    }
}

bool ChaosRun::simAvailable()
{
    return !simDownSince && stack.sim && stack.sim->running();
}

void ChaosRun::fire(FaultKind kind)
{
    auto& record = faults[kind];
    record.at.push_back(now());
    const auto toSim = [&](const std::string& line) {
        if (!stack.simCommand(line))
            ++record.skipped;
    };
    switch (kind) {
    case FaultKind::commandBurst:
        for (int i = 0; i < settings.burst; ++i)
            sendCommand(CommandKind::burst);
        break;
    case FaultKind::badFrameZeroLength: toSim("bad-frame zero-length"); break;
    case FaultKind::badFrameBadType: toSim("bad-frame bad-type"); break;
    case FaultKind::badFrameOversize: toSim("bad-frame oversize"); break;
    case FaultKind::malformedPublication: toSim("malformed-publication"); break;
    case FaultKind::oversizeCommandSmall: sendCommand(CommandKind::oversize, std::string(smallOversizeBytes, 'x')); break;
    case FaultKind::oversizeCommandLarge: sendCommand(CommandKind::oversize, std::string(largeOversizeBytes, 'x')); break;
    case FaultKind::busFlood: startBusFlood(busFloodCount, busFloodBytes); break;
    case FaultKind::busFloodBig: startBusFlood(bigBusFloodCount, bigBusFloodBytes); break;
    case FaultKind::simulatorRestart: startSimulatorRestart(); break;
    case FaultKind::brokerRestart: restartBroker(); break;
    case FaultKind::simulatorBusFlood: simulatorBusFlood(); break;
    case FaultKind::vehicleDownUp:
        toSim("vehicle down");
        later.emplace_back(now() + 2.0, [this] { stack.simCommand("vehicle up"); });
        break;
    }
}

std::string ChaosRun::sendCommand(CommandKind kind, const std::string& pad)
{
    const std::string id = ledger.open(kind, now());
    const char* api = kind == CommandKind::regular || kind == CommandKind::burst ? groundApis[apiTurn++ % 2]
                                                                                   : "getConfig";
    std::string payload = std::string(R"({"api":")") + api + R"(","type":"request","from":"chaos-app","target":")" +
                          e2e::stationSn + R"(","msgId":")" + id + R"(","message":{)";
    if (!pad.empty())
        payload += R"("pad":")" + pad + "\"";
    payload += "}}";
    try {
        if (!probe)
            throw std::runtime_error("no MQTT client");
        probe->publish(e2e::groundCommandTopic(), payload);
    } catch (const std::exception&) {
        ledger.publishFailed(id);
    }
    return id;
}

bool ChaosRun::connectProbe()
{
    for (int attempt = 0; attempt < 5; ++attempt) {
        try {
            probe = std::make_unique<e2e::MqttProbe>(stack.broker.uri(), "velmora-chaos-ground-app",
                                                     [this](const e2e::MqttProbe::Message& m) { ledger.onMessage(m.payload); },
                                                     true);
            // QoS 1: the broker queues answers for a subscriber that falls
            // behind instead of dropping them as it does at QoS 0.
            probe->subscribe(e2e::groundCommandTopic(), 1);
            return true;
        } catch (const std::exception&) {
            probe.reset();
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
    }
    return false;
}

void ChaosRun::restartBroker()
{
    auto& record = faults[FaultKind::brokerRestart];
    // Quiet first, so that only commands the broker's death can excuse go
    // unanswered: none are sent until the host is back and answering.
    quiesced = true;
    const std::size_t pending = waitForAnswers(std::chrono::duration<double>(quiesceBound).count());
    probe.reset();
    const double killedAt = now();
    stack.broker.kill();
    e2e::GatewayStack::waitUntil([&] { return !stack.mqttConnected(); }, std::chrono::seconds(10));
    try {
        stack.broker.start();
    } catch (const std::exception& e) {
        comebackFailures.push_back(std::string("the broker did not start again: ") + e.what());
        return;  // stays quiet: nothing can be sent any more
    }
    const bool hostBack = e2e::GatewayStack::waitUntil([&] { return stack.mqttConnected(); }, brokerBound);
    const double hostBackAt = now();
    if (!hostBack || !connectProbe()) {
        comebackFailures.push_back(hostBack ? "the driver could not connect to the restarted broker"
                                            : "the host did not reconnect to the restarted broker");
        return;
    }
    // The host restores its subscriptions right after reconnecting; probes
    // find the moment it answers again.
    bool answered = false;
    const auto deadline = Clock::now() + probeBound;
    while (!answered && Clock::now() < deadline) {
        const std::string id = sendCommand(CommandKind::probe);
        answered = e2e::GatewayStack::waitUntil([&] { return ledger.answered(id); }, std::chrono::milliseconds(500));
    }
    if (!answered)
        comebackFailures.push_back("no MQTT command was answered after the broker restart");
    char note[160];
    std::snprintf(note, sizeof note,
                  "host reconnected %.1f s after the kill, answering %.1f s after; %zu answer(s) pending at the kill",
                  hostBackAt - killedAt, now() - killedAt, pending);
    record.note = note;
    quiesced = !answered;
}

void ChaosRun::startSimulatorRestart()
{
    simDownSince = now();
    stack.killSim();
    simStartAt = now() + simDownBeforeRestart;
    simStartAttempts = 0;
    simWaitingForLink = false;
}

void ChaosRun::advanceSimulatorRestart()
{
    if (!simDownSince)
        return;
    if (!simWaitingForLink) {
        if (now() < simStartAt)
            return;
        try {
            stack.startSim(stack.simPort);
            simWaitingForLink = true;
            simStartAt = now();
            nextLinkCheck = now();
        } catch (const std::exception& e) {
            if (++simStartAttempts < simStartAttemptLimit) {
                simStartAt = now() + 1.0;
                return;
            }
            comebackFailures.push_back(std::string("the simulator did not start again: ") + e.what());
            ledger.addLinkDownWindow(*simDownSince, now());
            simDownSince.reset();
        }
        return;
    }
    if (now() < nextLinkCheck)
        return;
    nextLinkCheck = now() + 0.2;
    if (stack.serviceLink() == "up") {
        reconnectSeconds.push_back(now() - simStartAt);
        ledger.addLinkDownWindow(*simDownSince, now());
        simDownSince.reset();
    } else if (now() - simStartAt > reconnectBound) {
        comebackFailures.push_back("the plug-in did not reconnect to the restarted simulator within 30 s");
        ledger.addLinkDownWindow(*simDownSince, now());
        simDownSince.reset();
    }
}

void ChaosRun::startBusFlood(int count, std::size_t bytes)
{
    const std::uint16_t port = stack.httpPort;
    floods.emplace_back([this, port, count, bytes] { floodBus(port, count, bytes, busHttp, stopFloods); });
}

void ChaosRun::simulatorBusFlood()
{
    auto& record = faults[FaultKind::simulatorBusFlood];
    for (int i = 0; i < simulatorBusMessages; ++i) {
        const std::string message = R"(to-bus {"to":["{00000000-0000-4000-8000-00000000C4A0}"],"api":"chaosNotice",)"
                                    R"("data":{"n":)" + std::to_string(i) + "}}";
        if (!stack.simCommand(message)) {
            ++record.skipped;
            return;
        }
    }
}

std::size_t ChaosRun::waitForAnswers(double boundSeconds)
{
    // As long as answers still come, within the bound: a command that has
    // waited through a stall has no answer coming.
    const double from = now();
    std::size_t waiting = ledger.outstanding();
    double lastProgress = now();
    while (waiting > 0 && hostAlive && now() - lastProgress < drainStallSeconds && now() - from < boundSeconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        sampleHost();
        if (const std::size_t left = ledger.outstanding(); left < waiting) {
            waiting = left;
            lastProgress = now();
        }
    }
    return waiting;
}

void ChaosRun::finish()
{
    for (auto& flood : floods) {
        if (flood.joinable())
            flood.join();
    }
    groundApps->stop();
    telemetryStreams->stop();
    busTaps->stop();
    if (simDownSince) {
        ledger.addLinkDownWindow(*simDownSince, now());
        simDownSince.reset();
    }
    // Answers to the last commands are still on their way.
    const double drainFrom = now();
    waitForAnswers(drainBoundSeconds);
    drainSeconds = now() - drainFrom;
    nextHealthSample = 0;
    sampleHost();
    rssEndKiB = e2e::residentKiB(hostPid);
    rssPeakKiB = std::max(e2e::peakResidentKiB(hostPid), rssPeakSampledKiB);
    elapsed = now();
    probe.reset();
    if (hostAlive) {
        stack.host->signal(SIGTERM);
        if (const auto status = stack.host->waitExit(stopBound); status && WIFEXITED(*status))
            hostExitCode = WEXITSTATUS(*status);
    }
    keepLogs();
}

void ChaosRun::keepLogs()
{
    if (settings.keepLogs.empty())
        return;
    try {
        Poco::File(settings.keepLogs).createDirectories();
        for (const char* name : {"host.log", "host.out", "sim.log", "velmora-host.json"}) {
            if (Poco::File(stack.dir.file(name)).exists())
                Poco::File(stack.dir.file(name)).copyTo(settings.keepLogs);
        }
        std::ofstream(settings.keepLogs + "/mosquitto.log") << stack.broker.output();
        std::printf("chaos: logs kept in %s\n", settings.keepLogs.c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "velmora-chaos: cannot keep the logs in %s: %s\n", settings.keepLogs.c_str(), e.what());
    }
}

} // namespace vlm::chaos
