// A flood of MQTT commands while the micro service is away: the plug-in's
// command handler waits up to 3 s for the service per command, and the host's
// MQTT client must keep its link to the broker meanwhile.

#include <optional>

#include <sys/wait.h>

#include "FrontsFixture.h"
#include "rpc/rpc_client.h"
#include "support/LogCapture.h"
#include "support/SpawnLogged.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;

const std::string pilotTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd";
constexpr int commands = 1000;

class MqttCommandBurst : public vlm::test::FrontsFixture {
protected:
    vlm::MqttClientOptions stationClientOptions() override
    {
        auto options = FrontsFixture::stationClientOptions();
        // Short enough that a network thread held up by one 3 s command would
        // miss its pings, and the broker would drop the link, within the test.
        options.keepAlive = 2s;
        options.deliveryQueueMessages = 3;
        return options;
    }
};

TEST_F(MqttCommandBurst, TheStationKeepsItsBrokerLinkThroughAThousandCommandsWhileTheServiceIsDown)
{
    vlm::test::LogCapture log;
    // The service goes away; every command now waits for it in vain.
    service.service.stop();
    ASSERT_TRUE(vlm::test::eventually([&] { return !state().callClient()->has_connected(); }));

    // A ground application counts what it sees on the command topic: its own
    // commands and the station's answers.
    vlm::test::GroundApp app(groundOptions(), {pilotTopic});
    auto isAnswer = [](const std::string&, const std::string& payload) {
        return payload.find("\"type\":\"response\"") != std::string::npos;
    };
    auto isRequest = [&](const std::string& topic, const std::string& payload) { return !isAnswer(topic, payload); };

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
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << vlm::test::TempDir::read(scratch.file("mosquitto_pub.log"));

    // Every message the station received (the commands and its own answers,
    // which come back on the same topic) is delivered or dropped, and the link
    // stays up all along.
    bool alwaysConnected = true;
    bool settled = false;
    const auto deadline = std::chrono::steady_clock::now() + 90s;
    while (!settled && std::chrono::steady_clock::now() < deadline) {
        alwaysConnected = mqtt->isConnected();
        if (!alwaysConnected)
            break;
        const auto c = mqtt->counters();
        const int requests = app.count(isRequest);
        const int answers = app.count(isAnswer);
        settled = requests == commands && c.queueDepth == 0 &&
                  c.delivered + c.queueDrops == std::uint64_t(commands + answers) && answers > 0;
        std::this_thread::sleep_for(20ms);
    }
    const auto c = mqtt->counters();
    EXPECT_TRUE(settled) << "requests " << app.count(isRequest) << ", answers " << app.count(isAnswer)
                         << ", delivered " << c.delivered << ", dropped " << c.queueDrops << ", waiting " << c.queueDepth;
    EXPECT_TRUE(alwaysConnected);
    EXPECT_GT(c.queueDrops, 0u);
    EXPECT_FALSE(log.contains("mqtt connection to")) << "the station lost its link";
    EXPECT_EQ(broker.output().find("exceeded timeout"), std::string::npos) << broker.output();
}

} // namespace
