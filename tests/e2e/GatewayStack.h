#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>

#include "host/HttpTestClient.h"
#include "support/ChildProcess.h"
#include "support/MosquittoBroker.h"
#include "support/TempDir.h"

namespace vlm::e2e {

using test::ChildProcess;

inline constexpr const char* pilotGuid = "{D639B3D5-A951-4BC7-A629-91255EBF9638}";
inline constexpr const char* topicGuid = "FBE242B9-B226-4401-A340-36ABD4D753AD";
inline constexpr const char* stationSn = "station-e2e";
/// The simulator's vehicle unless its settings say otherwise.
inline constexpr const char* pilotId = "SIM-UAV-0001";

/// The station's own topic (cloud commands, answers, telemetry, events) of `sn`.
std::string stationTopicOf(const std::string& sn);
inline std::string stationTopic() { return stationTopicOf(stationSn); }
/// The ground command topic that addresses the vehicle; answers come back on it.
inline std::string groundCommandTopic() { return stationTopicOf(pilotId); }

/// The product as it runs on a station: mosquitto, pilot-sim and velmora-host
/// with the built plug-in, on loopback ports the kernel chose.
class GatewayStack {
public:
    struct Options {
        std::string token;  // when set, the host requires "Authorization: Bearer <token>"
        double telemetryHz = 10;
        bool simControl = false;  // the simulator takes `simCommand` lines
        std::string stationSn = e2e::stationSn;
        std::vector<std::string> simArgs{};
        std::string brokerConfig{};  // further lines of the broker's configuration
    };

    explicit GatewayStack(Options options);
    GatewayStack();
    ~GatewayStack();

    /// Returns when the host reports its plug-in started; throws with the reason.
    void start();
    /// Starts the simulator on `port` (0: any); returns the port.
    std::uint16_t startSim(std::uint16_t port = 0);
    void killSim();
    /// Hands the simulator one control command line (needs `simControl`).
    bool simCommand(const std::string& line);
    void startHost();
    /// velmora-host with `args`, run with a HOME (its backup folder) and a
    /// hangar file of the stack's own, so that no test touches the user's.
    std::vector<std::string> hostCommand(const std::vector<std::string>& args) const;
    std::string configFile() const { return dir.file("velmora-host.json"); }

    /// The call with the token added when the stack has one.
    test::HttpAnswer http(test::HttpCall call) const;
    Poco::JSON::Object::Ptr health() const;
    /// The plug-in's service link as health reports it ("" when unknown).
    std::string serviceLink() const;
    bool mqttConnected() const;

    /// Polls `condition` every 50 ms until it holds or `timeout` passes.
    static bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
    std::string diagnostics() const;

    const Options options;
    test::TempDir dir;
    test::MosquittoBroker broker;
    std::unique_ptr<ChildProcess> sim;
    std::unique_ptr<ChildProcess> host;
    std::uint16_t simPort = 0;
    std::uint16_t httpPort = 0;
};

/// The path of a program under test; throws with a clear reason when it was not built.
std::string programPath(const char* built, const char* what);

} // namespace vlm::e2e
