// The gateway when things around it come and go: the simulator killed and
// restarted, the station's broker restarted, and commands arriving from a
// cloud broker bridged to the station's.

#include <signal.h>

#include <iostream>

#include "e2e/CloudBroker.h"
#include "e2e/E2eTest.h"

namespace vlm::e2e {
namespace {

using ResilienceTest = E2eTest;

// The plug-in's RPC clients retry once a second; the rest is slack for a
// loaded machine.
constexpr auto reconnectBound = std::chrono::seconds(4);

bool httpAnsweredOk(const test::HttpAnswer& answer)
{
    return answer.status == 200 && answer.body.find("\"code\":200") != std::string::npos;
}

TEST_F(ResilienceTest, SimulatorKilledAndRestartedTheHostKeepsServingAndThePluginReconnects)
{
    // A stream that shows telemetry: the vehicle is reported connected.
    const auto stream = telemetryStream();
    ASSERT_TRUE(stream);
    ASSERT_EQ(stack.serviceLink(), "up");
    const std::uint16_t port = stack.simPort;
    stack.killSim();

    ASSERT_TRUE(GatewayStack::waitUntil([&] { return stack.serviceLink() != "up"; }, eventBound));
    const auto whileDown = stack.http(test::post("/index/api/pilot/getConfig", request("getConfig", "d1")));
    EXPECT_EQ(whileDown.status, 200);
    EXPECT_EQ(whileDown.body.find("\"code\":200"), std::string::npos) << whileDown.body;

    ASSERT_EQ(stack.startSim(port), port);
    const auto listening = std::chrono::steady_clock::now();
    ASSERT_TRUE(GatewayStack::waitUntil([&] { return stack.serviceLink() == "up"; }, reconnectBound));
    const auto reconnected =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - listening);
    std::cout << "plug-in link up " << reconnected.count() << " ms after the simulator listened again\n";
    RecordProperty("reconnect_ms", static_cast<int>(reconnected.count()));

    EXPECT_TRUE(GatewayStack::waitUntil(
        [&] { return httpAnsweredOk(stack.http(test::post("/index/api/pilot/getConfig", request("getConfig", "r1")))); },
        eventBound));
    // The stream that stayed open carries the new simulator's telemetry, and a new one does too.
    EXPECT_FALSE(stream->nextData("\"seq\"", eventBound).empty());
    EventStream fresh(stack.httpPort, "/index/api/pilot/pushTelemetry");
    EXPECT_EQ(fresh.contentType(), "text/event-stream");
    EXPECT_FALSE(fresh.nextData("\"seq\"", eventBound).empty());
}

TEST_F(ResilienceTest, BrokerRestartedMqttCommandsWorkAgain)
{
    {
        MqttProbe app(stack.broker.uri(), "e2e-before-restart");
        app.subscribe(groundCommandTopic());
        ASSERT_TRUE(mqttAnswer(app, groundCommandTopic(), "getConfig", "before", true));
    }

    stack.broker.stop();
    ASSERT_TRUE(GatewayStack::waitUntil(
        [&] { return !stack.mqttConnected(); }, eventBound));
    stack.broker.start();
    ASSERT_TRUE(GatewayStack::waitUntil(
        [&] { return stack.mqttConnected(); }, std::chrono::seconds(15)));

    MqttProbe app(stack.broker.uri(), "e2e-after-restart");
    app.subscribe(groundCommandTopic());
    EXPECT_TRUE(mqttAnswer(app, groundCommandTopic(), "getConfig", "after", true));
}

TEST_F(ResilienceTest, CloudCommandsComeInAndAnswersGoOutThroughABridgedBroker)
{
    CloudBroker cloud(stack.broker.hostPort());
    MqttProbe cloudService(cloud.uri(), "e2e-cloud-service");
    cloudService.subscribe(stationTopic());
    // The bridge is up once the station's own publications reach the cloud.
    ASSERT_TRUE(GatewayStack::waitUntil(
        [&] { return cloudService.count([](const auto& m) { return hasText(m.payload, "type", "response"); }) > 0; },
        eventBound))
        << cloud.output();

    const auto answer = mqttAnswer(cloudService, stationTopic(), "getVersionInfo", "cloud-1");
    ASSERT_TRUE(answeredOk(answer)) << cloud.output();
    EXPECT_TRUE(hasText(answer->payload, "api", "getVersionInfo"));
    EXPECT_TRUE(hasText(answer->payload, "target", "e2e-app"));
}

} // namespace
} // namespace vlm::e2e
