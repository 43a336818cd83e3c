// A flood of MQTT commands while the micro service is away: the plug-in's
// command handler waits up to 3 s for the service per command, and the host's
// MQTT client must keep its link to the broker meanwhile.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <sys/wait.h>

#include <gtest/gtest.h>

#include "PilotControlPTestAccess.h"
#include "ScriptedService.h"
#include "VelmoraCommon.h"
#include "http/HttpApiServer.h"
#include "mqtt/PahoMqttClient.h"
#include "rpc/rpc_client.h"
#include "support/LogCapture.h"
#include "support/MosquittoBroker.h"
#include "support/SpawnLogged.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;

const std::string pilotTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd";
constexpr int commands = 1000;

/// Counts what a ground application sees on the command topic: its own
/// commands and the station's answers.
struct TopicWatch {
    void record(const std::string& payload)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (payload.find("\"type\":\"response\"") != std::string::npos)
            ++answers;
        else
            ++requests;
    }
    std::pair<int, int> seen()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return {requests, answers};
    }
    std::mutex mutex;  // guards requests, answers
    int requests = 0;
    int answers = 0;
};

TEST(MqttCommandBurst, TheStationKeepsItsBrokerLinkThroughAThousandCommandsWhileTheServiceIsDown)
{
    vlm::test::LogCapture log;
    vlm::test::MosquittoBroker broker;
    broker.start();
    vlm::configInstance().setString("mqtt.server_uri", broker.hostPort());
    vlm::configInstance().setString("mqtt.user_name", "");
    vlm::configInstance().setString("mqtt.pawsswd", "");

    auto service = std::make_unique<vlm::test::ScriptedService>();
    auto server = std::make_shared<vlm::HttpApiServer>();
    server->start();
    vlm::MqttClientOptions options;
    options.serverUri = broker.hostPort();
    options.stationSerial = "station-1";
    // Short enough that a network thread held up by one 3 s command would
    // miss its pings, and the broker would drop the link, within the test.
    options.keepAlive = 2s;
    options.deliveryQueueMessages = 3;
    auto station = std::make_shared<vlm::PahoMqttClient>(options);
    ASSERT_TRUE(station->connect());
    auto plugin = vlm::PilotControlP::createInstance();
    plugin->start(server, station, "127.0.0.1", service->port);
    ASSERT_TRUE(service->service.wait_for_subscriber("vehicleOnlineStatus", 10s));

    // The service goes away; every command now waits for it in vain.
    service.reset();
    auto& state = vlm::PilotControlPTestAccess::impl(*plugin);
    for (int i = 0; i < 500 && state.callClient()->has_connected(); ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_FALSE(state.callClient()->has_connected());

    vlm::MqttClientOptions appOptions;
    appOptions.serverUri = broker.hostPort();
    vlm::PahoMqttClient app(appOptions);
    ASSERT_TRUE(app.connect());
    TopicWatch watch;
    ASSERT_TRUE(app.Subscribe([&](const std::string&, const std::string& payload) { watch.record(payload); },
                              pilotTopic, 0));

    // Published from a process of its own, so that nothing of this process's
    // MQTT library paces the burst.
    vlm::test::TempDir scratch;
    const pid_t publisher = vlm::test::spawnLogged(
        {"/usr/bin/mosquitto_pub", "-h", "127.0.0.1", "-p", std::to_string(broker.port()), "-t", pilotTopic, "-q", "0",
         "--repeat", std::to_string(commands), "-m",
         R"({"api":"getConfig","type":"request","from":"app","target":"station-1","msgId":"burst"})"},
        scratch.file("mosquitto_pub.log"), true);
    int status = -1;
    for (int i = 0; i < 3000 && ::waitpid(publisher, &status, WNOHANG) != publisher; ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << vlm::test::TempDir::read(scratch.file("mosquitto_pub.log"));

    // Every message the station received (the commands and its own answers,
    // which come back on the same topic) is delivered or dropped, and the link
    // stays up all along.
    bool alwaysConnected = true;
    bool settled = false;
    const auto deadline = std::chrono::steady_clock::now() + 90s;
    while (!settled && std::chrono::steady_clock::now() < deadline) {
        alwaysConnected = station->isConnected();
        if (!alwaysConnected)
            break;
        const auto c = station->counters();
        const auto [requests, answers] = watch.seen();
        settled = requests == commands && c.queueDepth == 0 && c.delivered + c.queueDrops == std::uint64_t(commands + answers) &&
                  answers > 0;
        std::this_thread::sleep_for(20ms);
    }
    const auto c = station->counters();
    const auto [requests, answers] = watch.seen();
    EXPECT_TRUE(settled) << "requests " << requests << ", answers " << answers << ", delivered " << c.delivered
                         << ", dropped " << c.queueDrops << ", waiting " << c.queueDepth;
    EXPECT_TRUE(alwaysConnected);
    EXPECT_GT(c.queueDrops, 0u);
    EXPECT_FALSE(log.contains("mqtt connection to")) << "the station lost its link";
    EXPECT_EQ(broker.output().find("exceeded timeout"), std::string::npos) << broker.output();

    plugin->stop();
    server->stop();
}

} // namespace
