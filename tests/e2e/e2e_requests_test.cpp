// The gateway's three fronts with real processes: HTTP requests and event
// streams, MQTT commands and publications, and the bus through the tap.

#include <Poco/JSON/Parser.h>

#include "e2e/E2eTest.h"

namespace vlm::e2e {
namespace {

Poco::JSON::Object::Ptr parse(const std::string& text)
{
    try {
        return Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
    } catch (...) {
        return nullptr;
    }
}

using RequestsTest = E2eTest;

TEST_F(RequestsTest, HttpRequestIsForwardedToTheSimulatorAndAnswered)
{
    const auto answer = stack.http(test::post("/index/api/pilot/getConfig", request("getConfig", "h1")));
    ASSERT_EQ(answer.status, 200);
    const auto json = answer.json();
    ASSERT_TRUE(json) << answer.body;
    EXPECT_EQ(json->getValue<std::string>("msgId"), "h1");
    EXPECT_EQ(json->getValue<std::string>("target"), "e2e-app");
    EXPECT_EQ(json->getValue<std::string>("pilot_id"), pilotId);
    EXPECT_EQ(json->getObject("message")->getValue<int>("code"), 200);
    // The simulator's own settings, which only it can know.
    EXPECT_EQ(json->getObject("message")->getObject("result")->getObject("vehicle")->getValue<std::string>("pilot_id"),
              pilotId);
}

TEST_F(RequestsTest, TelemetryStreamShowsLiveSimulatorTelemetry)
{
    std::string first;
    const auto stream = telemetryStream(&first);
    ASSERT_TRUE(stream);
    const std::string second = stream->nextData("\"seq\"", eventBound);
    const auto a = parse(first);
    const auto b = parse(second);
    ASSERT_TRUE(a && b) << first << "\n" << second;
    EXPECT_EQ(a->getValue<std::string>("pilot_id"), pilotId);
    EXPECT_GT(b->getValue<int>("seq"), a->getValue<int>("seq"));
    EXPECT_GT(b->getValue<Poco::Int64>("timestamp"), a->getValue<Poco::Int64>("timestamp"));
}

TEST_F(RequestsTest, MqttCommandIsAnsweredOnMqtt)
{
    MqttProbe app(stack.broker.uri(), "e2e-ground-app");
    app.subscribe(groundCommandTopic());
    const auto answer = mqttAnswer(app, groundCommandTopic(), "getVersionInfo", "m1");
    ASSERT_TRUE(answeredOk(answer)) << (answer ? answer->payload : "no answer");
    EXPECT_EQ(answer->topic, groundCommandTopic());
    EXPECT_TRUE(hasText(answer->payload, "api", "getVersionInfo"));
    EXPECT_TRUE(hasText(answer->payload, "target", "e2e-app"));
}

TEST_F(RequestsTest, TelemetryIsPublishedOnMqttWhileTheVehicleIsConnected)
{
    MqttProbe ground(stack.broker.uri(), "e2e-telemetry-reader");
    ground.subscribe(stationTopic());
    const auto isTelemetry = [](const MqttProbe::Message& m) { return hasText(m.payload, "api", "pushTelemetry"); };
    ASSERT_TRUE(GatewayStack::waitUntil([&] { return ground.count(isTelemetry) >= 3; }, eventBound));
    const auto message = ground.waitFor(isTelemetry, std::chrono::seconds(0));
    const auto envelope = parse(message->payload);
    ASSERT_TRUE(envelope);
    EXPECT_EQ(envelope->getValue<std::string>("from"), stationSn);
    EXPECT_EQ(envelope->getValue<std::string>("pilot_id"), pilotId);
    EXPECT_TRUE(envelope->getObject("message")->has("lat"));
}

TEST_F(RequestsTest, BusMessageFromTheTapReachesTheSimulatorAndItsAnswerComesBackOnTheTap)
{
    EventStream tap(stack.httpPort, "/host/bus");
    ASSERT_EQ(tap.contentType(), "text/event-stream");
    ASSERT_TRUE(GatewayStack::waitUntil(
        [&] { return stack.health()->getObject("bus")->getValue<int>("taps") == 1; }, eventBound));

    const std::string sender = "{0E2E0E2E-0000-4000-8000-00000000E2E0}";
    const auto posted = stack.http(test::post(
        "/host/bus", R"({"to":[")" + std::string(pilotGuid) + R"("],"guid":")" + sender +
                         R"(","api":"getConfig","type":"request","msgId":"bus-1","data":{}})"));
    ASSERT_EQ(posted.status, 202) << posted.body;

    const std::string answer = tap.nextData("\"to\":[\"" + sender + "\"]", eventBound);
    const auto json = parse(answer);
    ASSERT_TRUE(json) << answer;
    EXPECT_EQ(json->getValue<std::string>("guid"), pilotGuid);
    EXPECT_EQ(json->getValue<std::string>("msgId"), "bus-1");
    EXPECT_EQ(json->getObject("data")->getValue<int>("code"), 200);
    EXPECT_EQ(json->getObject("data")->getObject("result")->getObject("vehicle")->getValue<std::string>("pilot_id"),
              pilotId);
}

} // namespace
} // namespace vlm::e2e
