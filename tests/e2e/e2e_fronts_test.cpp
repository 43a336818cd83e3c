// The gateway's three fronts with real processes: one request each over HTTP,
// MQTT and the bus, answered by the simulator through the host and the
// plug-in, and counted exactly once in "/host/metrics", whose scrape promtool accepts.

#include <fstream>

#include <Poco/JSON/Parser.h>

#include "e2e/E2eTest.h"

namespace vlm::e2e {
namespace {

constexpr const char* token = "e2e-fronts-token";
constexpr const char* plugin = "VelmoraPluginPilotControl";

/// The value of the sample written exactly as `series` in the scrape; nothing when there is none.
std::optional<double> sampleValue(const std::string& scrape, const std::string& series)
{
    const auto at = scrape.find("\n" + series + " ");
    return at == std::string::npos ? std::nullopt
                                   : std::optional<double>(std::strtod(&scrape[at + series.size() + 2], nullptr));
}

/// How much a series grew; one that appears with its first event grew from 0.
double grown(const std::string& before, const std::string& after, const std::string& series)
{
    return sampleValue(after, series).value_or(-1) - sampleValue(before, series).value_or(0);
}

class FrontsTest : public E2eTest {
protected:
    FrontsTest() : E2eTest(GatewayStack::Options{token}) {}

    std::string scrape()
    {
        const auto answer = stack.http(test::get("/host/metrics"));
        EXPECT_EQ(answer.status, 200) << answer.body;
        return answer.body;
    }

    std::string pluginSeries(const std::string& name, const std::string& labels = "") const
    {
        return name + R"({plugin=")" + plugin + R"(",service="127.0.0.1:)" + std::to_string(stack.simPort) + '"' +
               labels + "}";
    }

    std::string forwarded(const char* front) const
    {
        return pluginSeries("velmora_plugin_forwarded_requests_total",
                            std::string(R"(,front=")") + front + R"(",outcome="answered")");
    }

    /// The simulator's own vehicle, which only it can know.
    static std::string vehiclePilotId(const Poco::JSON::Object::Ptr& message)
    {
        return message->getObject("result")->getObject("vehicle")->getValue<std::string>("pilot_id");
    }
};

TEST_F(FrontsTest, EachFrontIsAnsweredThroughTheSimulatorAndCountedExactlyOnce)
{
    MqttProbe app(stack.broker.uri(), "e2e-ground-app");
    app.subscribe(groundCommandTopic());
    ASSERT_TRUE(mqttAnswer(app, groundCommandTopic(), "getVersionInfo", "warm-up"));
    EventStream tap(stack.httpPort, "/host/bus", token);
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
    EXPECT_EQ(json->getObject("message")->getValue<int>("code"), 200);
    EXPECT_EQ(vehiclePilotId(json->getObject("message")), pilotId);

    const auto mqtt = mqttAnswer(app, groundCommandTopic(), "getVersionInfo", "m1");
    ASSERT_TRUE(mqtt);
    EXPECT_NE(mqtt->payload.find("\"code\":200"), std::string::npos) << mqtt->payload;

    const std::string sender = "{0E2E0E2E-0000-4000-8000-00000000E2E0}";
    const auto posted = stack.http(test::post("/host/bus", R"({"to":[")" + std::string(pilotGuid) + R"("],"guid":")" +
                                                               sender + R"(","api":"getConfig","type":"request",)"
                                                               R"("msgId":"bus-1","data":{}})"));
    ASSERT_EQ(posted.status, 202) << posted.body;
    const auto bus = Poco::JSON::Parser().parse(tap.nextData("\"to\":[\"" + sender + "\"]", eventBound))
                         .extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(bus->getValue<std::string>("guid"), pilotGuid);
    EXPECT_EQ(bus->getObject("data")->getValue<int>("code"), 200);
    EXPECT_EQ(vehiclePilotId(bus->getObject("data")), pilotId);

    // The bus front counts after its answer is on its way: awaited, bounded.
    std::string after;
    EXPECT_TRUE(GatewayStack::waitUntil([&] { return grown(before, after = scrape(), forwarded("bus")) == 1; },
                                        eventBound)) << after;
    EXPECT_EQ(grown(before, after, forwarded("http")), 1);
    EXPECT_EQ(grown(before, after, forwarded("mqtt")), 1);
    EXPECT_EQ(grown(before, after, R"(velmora_http_requests_total{class="plugin_request",status="200"})"), 1);
    EXPECT_EQ(sampleValue(after, pluginSeries("velmora_plugin_event_streams_open")), 1);
    EXPECT_EQ(sampleValue(after, "velmora_http_plugin_streams"), 1);

    // A reader of the text format that is not ours: Prometheus's own checker.
    const std::string file = stack.dir.path + "/scrape.txt";
    std::ofstream(file) << after;
    vlm::test::ChildProcess promtool(
        {"/bin/sh", "-c", "command -v promtool >/dev/null || exit 127; promtool check metrics < '" + file + "'"},
        file + ".log");
    const std::optional<int> checked = promtool.waitExit(std::chrono::seconds(30));
    ASSERT_NE(checked, 127) << "promtool not found: install Debian's prometheus package (scripts/install-deps.sh)";
    EXPECT_EQ(checked, 0) << promtool.output() << "\n" << after;
}

} // namespace
} // namespace vlm::e2e
