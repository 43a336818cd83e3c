// The gateway's three fronts with real processes: one request each over HTTP,
// MQTT and the bus, answered by the simulator through the host and the
// plug-in, and counted exactly once in "/host/metrics".

#include <Poco/JSON/Parser.h>

#include "e2e/E2eTest.h"
#include "e2e/MetricsScrape.h"

namespace vlm::e2e {
namespace {

constexpr const char* token = "e2e-fronts-token";
constexpr const char* plugin = "VelmoraPluginPilotControl";
using Labels = std::vector<std::pair<std::string, std::string>>;

class FrontsTest : public E2eTest {
protected:
    FrontsTest() : E2eTest(GatewayStack::Options{token}) {}

    std::string scrape()
    {
        const auto answer = stack.http(test::get("/host/metrics"));
        EXPECT_EQ(answer.status, 200) << answer.body;
        EXPECT_EQ(answer.contentType.rfind("text/plain; version=0.0.4", 0), 0u) << answer.contentType;
        return answer.body;
    }

    /// How much a series grew; one that appears with its first event grew from 0.
    static double grown(const std::string& before, const std::string& after, const std::string& name,
                        const Labels& labels)
    {
        return sampleValue(after, name, labels).value_or(-1) - sampleValue(before, name, labels).value_or(0);
    }

    static Labels forwarded(const char* front, const char* outcome = "answered")
    {
        return {{"plugin", plugin}, {"front", front}, {"outcome", outcome}};
    }

    /// The vehicle reported by the simulator (until then commands end in 4001).
    static std::string vehiclePilotId(const Poco::JSON::Object::Ptr& result)
    {
        return result->getObject("vehicle")->getValue<std::string>("pilot_id");
    }
};

TEST_F(FrontsTest, EachFrontIsAnsweredThroughTheSimulatorAndCountedExactlyOnce)
{
    MqttProbe app(stack.broker.uri(), "e2e-ground-app");
    app.subscribe(groundCommandTopic());
    ASSERT_TRUE(answeredOk(mqttAnswer(app, groundCommandTopic(), "getVersionInfo", "warm-up")));
    EventStream tap(stack.httpPort, "/host/bus", token);
    ASSERT_EQ(tap.contentType(), "text/event-stream");
    const auto telemetry = telemetryStream();
    ASSERT_TRUE(telemetry);
    ASSERT_TRUE(GatewayStack::waitUntil(
        [&] { return stack.health()->getObject("bus")->getValue<int>("taps") == 1; }, eventBound));
    const std::string before = scrape();

    const auto http = stack.http(test::post("/index/api/pilot/getConfig", request("getConfig", "h1")));
    ASSERT_EQ(http.status, 200);
    const auto json = http.json();
    ASSERT_TRUE(json) << http.body;
    EXPECT_EQ(json->getValue<std::string>("msgId"), "h1");
    EXPECT_EQ(json->getValue<std::string>("target"), "e2e-app");
    EXPECT_EQ(json->getValue<std::string>("pilot_id"), pilotId);
    EXPECT_EQ(json->getObject("message")->getValue<int>("code"), 200);
    // The simulator's own settings, which only it can know.
    EXPECT_EQ(vehiclePilotId(json->getObject("message")->getObject("result")), pilotId);

    const auto mqtt = mqttAnswer(app, groundCommandTopic(), "getVersionInfo", "m1");
    ASSERT_TRUE(answeredOk(mqtt)) << (mqtt ? mqtt->payload : "no answer");
    EXPECT_EQ(mqtt->topic, groundCommandTopic());
    EXPECT_TRUE(hasText(mqtt->payload, "api", "getVersionInfo"));
    EXPECT_TRUE(hasText(mqtt->payload, "target", "e2e-app"));

    const std::string sender = "{0E2E0E2E-0000-4000-8000-00000000E2E0}";
    const auto posted = stack.http(test::post("/host/bus", R"({"to":[")" + std::string(pilotGuid) + R"("],"guid":")" +
                                                               sender + R"(","api":"getConfig","type":"request",)"
                                                               R"("msgId":"bus-1","data":{}})"));
    ASSERT_EQ(posted.status, 202) << posted.body;
    const std::string busAnswer = tap.nextData("\"to\":[\"" + sender + "\"]", eventBound);
    const auto bus = Poco::JSON::Parser().parse(busAnswer).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(bus->getValue<std::string>("guid"), pilotGuid);
    EXPECT_EQ(bus->getValue<std::string>("msgId"), "bus-1");
    EXPECT_EQ(bus->getObject("data")->getValue<int>("code"), 200);
    EXPECT_EQ(vehiclePilotId(bus->getObject("data")->getObject("result")), pilotId);

    // The bus front counts after its answer is on its way: awaited, bounded.
    const std::string total = "velmora_plugin_forwarded_requests_total";
    std::string after;
    EXPECT_TRUE(GatewayStack::waitUntil(
        [&] { return grown(before, after = scrape(), total, forwarded("bus")) == 1; }, eventBound)) << after;
    EXPECT_EQ(grown(before, after, total, forwarded("http")), 1);
    EXPECT_EQ(grown(before, after, total, forwarded("mqtt")), 1);
    EXPECT_EQ(grown(before, after, total, forwarded("http", "4002")), 0);
    EXPECT_EQ(grown(before, after, "velmora_plugin_forward_latency_seconds_bucket",
                    {{"plugin", plugin}, {"front", "mqtt"}, {"le", "+Inf"}}), 1);
    EXPECT_EQ(grown(before, after, "velmora_http_requests_total", {{"class", "plugin_request"}, {"status", "200"}}), 1);
    EXPECT_EQ(sampleValue(after, "velmora_plugin_event_streams_open", {{"plugin", plugin}}), 1);
    EXPECT_EQ(sampleValue(after, "velmora_http_plugin_streams"), 1);
    EXPECT_EQ(sampleValue(after, "velmora_plugin_metrics_rejected_lines", {{"plugin", plugin}}), 0)
        << "the host dropped lines of the plug-in's own report";

    const PromtoolVerdict verdict = checkWithPromtool(after, stack.dir.path);
    ASSERT_TRUE(verdict.ran) << "promtool not found: scripts/install-deps.sh installs Debian's prometheus";
    EXPECT_EQ(verdict.exitCode, 0) << verdict.output << "\n" << after;
}

} // namespace
} // namespace vlm::e2e
