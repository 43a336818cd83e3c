#pragma once

// One chaos run: the real stack under load while a fault schedule fires,
// then the invariants checked and the tables printed.

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ChaosSettings.h"
#include "CommandLedger.h"
#include "HealthCounters.h"
#include "HttpLoad.h"
#include "HttpTally.h"
#include "e2e/GatewayStack.h"
#include "e2e/MqttProbe.h"
#include "StreamReaders.h"

namespace vlm::chaos {

enum class FaultKind {
    commandBurst,
    badFrameZeroLength,
    oversizeCommandSmall,
    busFlood,
    simulatorRestart,
    malformedPublication,
    oversizeCommandLarge,
    vehicleDownUp,
    busFloodBig,
    brokerRestart,
    badFrameBadType,
    simulatorBusFlood,
    badFrameOversize,
};
inline constexpr int faultKindCount = 13;

const char* faultName(FaultKind kind);

/// Not thread-safe: one thread (the program's main thread, which must
/// outlive the processes it starts) drives it.
class ChaosRun {
public:
    explicit ChaosRun(Settings settings);
    ~ChaosRun();
    ChaosRun(const ChaosRun&) = delete;
    ChaosRun& operator=(const ChaosRun&) = delete;

    /// Runs, prints the tables, and returns the exit code: 0 when every
    /// invariant held, 1 otherwise.
    int run();

private:
    struct FaultRecord {
        std::vector<double> at;
        int skipped = 0;
        std::string note;
    };

    double now() const;
    void tick();
    void sampleHost();
    void fire(FaultKind kind);
    bool simAvailable();
    std::string sendCommand(CommandKind kind, const std::string& pad = "");
    bool connectProbe();
    void restartBroker();
    void startSimulatorRestart();
    void advanceSimulatorRestart();
    void startBusFlood(int count, std::size_t bytes);
    void simulatorBusFlood();
    /// Waits while MQTT answers still arrive; returns how many are still missing.
    std::size_t waitForAnswers(double boundSeconds);
    void finish();
    void keepLogs();
    int report();

    const Settings settings;
    const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    e2e::GatewayStack stack;
    CommandLedger ledger;
    HttpTally groundHttp;
    HttpTally busHttp;
    std::unique_ptr<e2e::MqttProbe> probe;
    std::unique_ptr<e2e::StreamReaders> telemetryStreams;
    std::unique_ptr<e2e::StreamReaders> busTaps;
    std::unique_ptr<GroundApps> groundApps;
    std::map<FaultKind, FaultRecord> faults;
    std::vector<std::pair<double, std::function<void()>>> later;  // delayed fault steps, run by tick()

    bool quiesced = false;
    double nextCommandAt = 0;
    std::uint64_t apiTurn = 0;

    // The simulator restart under way, if any.
    std::optional<double> simDownSince;
    double simStartAt = 0;
    int simStartAttempts = 0;
    bool simWaitingForLink = false;
    double nextLinkCheck = 0;
    std::vector<double> reconnectSeconds;
    std::vector<std::string> comebackFailures;

    std::atomic<bool> stopFloods{false};
    std::vector<std::thread> floods;

    // The host, watched.
    pid_t hostPid = -1;
    bool hostAlive = true;
    double hostEndedAt = -1;
    long rssStartKiB = 0;
    long rssPeakSampledKiB = 0;
    long rssPeakKiB = 0;
    long rssEndKiB = 0;
    double nextRssSample = 0;
    double nextHealthSample = 0;
    double nextProgress = 10;
    HealthNumbers healthStart;
    HealthNumbers healthEnd;
    bool healthStartTaken = false;
    int hostExitCode = -1;
    double elapsed = 0;
    double drainSeconds = 0;  ///< waited at the end for the last answers
};

} // namespace vlm::chaos
