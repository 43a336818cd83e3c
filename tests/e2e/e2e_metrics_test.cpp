// "/host/metrics" on the real stack: the scrape passes promtool, and the
// counters move by exactly what was done between two scrapes.

#include <Poco/JSON/Parser.h>

#include "e2e/E2eTest.h"
#include "e2e/MetricsScrape.h"

namespace vlm::e2e {
namespace {

constexpr const char* token = "e2e-metrics-token";
constexpr const char* plugin = "VelmoraPluginPilotControl";

class MetricsTest : public E2eTest {
protected:
    MetricsTest() : E2eTest(GatewayStack::Options{token, 10}) {}

    std::string scrape()
    {
        const auto answer = stack.http(test::get("/host/metrics"));
        EXPECT_EQ(answer.status, 200) << answer.body;
        EXPECT_EQ(answer.contentType.rfind("text/plain; version=0.0.4", 0), 0u) << answer.contentType;
        return answer.body;
    }

    // A series of the plug-in's report; fails the test when it is missing.
    double pluginSample(const std::string& scrape, const std::string& name,
                        std::vector<std::pair<std::string, std::string>> labels)
    {
        labels.emplace_back("plugin", plugin);
        const auto value = sampleValue(scrape, name, labels);
        EXPECT_TRUE(value) << "no single sample " << name << " in:\n" << scrape;
        return value.value_or(-1);
    }

    static bool answeredWith200(const std::string& body)
    {
        try {
            const auto json = Poco::JSON::Parser().parse(body).extract<Poco::JSON::Object::Ptr>();
            return json->getObject("message")->getValue<int>("code") == 200;
        } catch (...) {
            return false;
        }
    }

    bool httpGetConfig(const std::string& msgId)
    {
        const auto answer = stack.http(test::post("/index/api/pilot/getConfig", request("getConfig", msgId)));
        return answer.status == 200 && answeredWith200(answer.body);
    }

    // One ground command answered with 200 (sent again only when unanswered).
    static bool mqttCommand(MqttProbe& app, const std::string& msgId)
    {
        return answeredOk(mqttAnswer(app, groundCommandTopic(), "getVersionInfo", msgId));
    }
};

TEST_F(MetricsTest, ScrapePassesPromtoolAndCountsEveryForwardedRequest)
{
    // The host's token from its configuration guards the metrics and health
    // too, and health says so.
    EXPECT_EQ(test::get("/host/metrics").sendTo(stack.httpPort).status, 401);
    EXPECT_EQ(test::get("/host/health").sendTo(stack.httpPort).status, 401);
    EXPECT_TRUE(stack.health()->getObject("http")->getValue<bool>("token_required"));

    // Until the simulator reports the vehicle, commands may end in 4001.
    MqttProbe app(stack.broker.uri(), "e2e-metrics-app");
    app.subscribe(groundCommandTopic());
    ASSERT_TRUE(mqttCommand(app, "warm-up"));
    ASSERT_TRUE(httpGetConfig("warm-up"));

    const std::string before = scrape();
    constexpr int httpRequests = 5;
    constexpr int mqttCommands = 3;
    for (int i = 0; i < httpRequests; ++i)
        ASSERT_TRUE(httpGetConfig("h" + std::to_string(i)));
    for (int i = 0; i < mqttCommands; ++i)
        ASSERT_TRUE(mqttCommand(app, "m" + std::to_string(i)));
    const std::string after = scrape();

    const auto grown = [&](const std::string& name, const std::vector<std::pair<std::string, std::string>>& labels) {
        return pluginSample(after, name, labels) - pluginSample(before, name, labels);
    };
    EXPECT_EQ(grown("velmora_plugin_forwarded_requests_total", {{"front", "http"}, {"outcome", "answered"}}),
              httpRequests);
    EXPECT_EQ(grown("velmora_plugin_forwarded_requests_total", {{"front", "mqtt"}, {"outcome", "answered"}}),
              mqttCommands);
    EXPECT_EQ(grown("velmora_plugin_forwarded_requests_total", {{"front", "http"}, {"outcome", "4002"}}), 0);
    EXPECT_EQ(grown("velmora_plugin_forward_latency_seconds_count", {{"front", "http"}}), httpRequests);
    EXPECT_EQ(grown("velmora_plugin_forward_latency_seconds_bucket", {{"front", "mqtt"}, {"le", "+Inf"}}),
              mqttCommands);
    // One call frame per request at least (heartbeats may add more).
    EXPECT_GE(grown("velmora_plugin_link_frames_sent_total", {{"link", "call"}}), httpRequests + mqttCommands);
    EXPECT_GT(grown("velmora_plugin_link_bytes_received_total", {{"link", "call"}}), 0);
    EXPECT_EQ(pluginSample(after, "velmora_plugin_link_connected", {{"link", "subscription"}}), 1);

    // The host's own view of the same requests, and of the refused scrape.
    const auto hostGrown = [&](const std::string& name,
                               const std::vector<std::pair<std::string, std::string>>& labels) {
        return sampleValue(after, name, labels).value_or(-1) - sampleValue(before, name, labels).value_or(0);
    };
    EXPECT_EQ(hostGrown("velmora_http_requests_total", {{"class", "plugin_request"}, {"status", "200"}}),
              httpRequests);
    EXPECT_GE(sampleValue(after, "velmora_http_requests_total", {{"class", "refused"}, {"status", "401"}}), 1);
    EXPECT_GE(hostGrown("velmora_mqtt_publishes_total", {}), mqttCommands);
    EXPECT_EQ(sampleValue(after, "velmora_mqtt_connected"), 1);
    EXPECT_EQ(sampleValue(after, "velmora_service_link_up", {{"plugin", plugin}}), 1);
    EXPECT_GT(sampleValue(after, "velmora_process_resident_memory_bytes").value_or(0), 0);
    EXPECT_GE(sampleValue(after, "velmora_process_threads").value_or(0), 2);
    EXPECT_GT(sampleValue(after, "velmora_process_open_fds").value_or(0), 0);
    EXPECT_EQ(sampleValue(after, "velmora_plugin_metrics_rejected_lines", {{"plugin", plugin}}), 0)
        << "the host dropped lines of the plug-in's own report";

    const PromtoolVerdict verdict = checkWithPromtool(after, stack.dir.path);
    ASSERT_TRUE(verdict.ran) << "promtool not found: install Debian's prometheus package "
                                "(scripts/install-deps.sh installs it)";
    EXPECT_EQ(verdict.exitCode, 0) << verdict.output << "\n" << after;

    // The bus front answers asynchronously: its count is awaited (bounded).
    constexpr int busMessages = 2;
    const std::string busMessage = std::string(R"({"to":[")") + pilotGuid +
                                   R"("],"guid":"{00000000-0000-4000-8000-000000000001}","api":"getConfig",)"
                                   R"("type":"request","data":{}})";
    for (int i = 0; i < busMessages; ++i)
        ASSERT_EQ(stack.http(test::post("/host/bus", busMessage)).status, 202);
    const std::vector<std::pair<std::string, std::string>> busAnswered{{"front", "bus"}, {"outcome", "answered"}};
    std::string latest;
    EXPECT_TRUE(GatewayStack::waitUntil(
        [&] {
            latest = scrape();
            return pluginSample(latest, "velmora_plugin_forwarded_requests_total", busAnswered) -
                       pluginSample(after, "velmora_plugin_forwarded_requests_total", busAnswered) ==
                   busMessages;
        },
        eventBound))
        << latest;

    const auto description = stack.http(test::get("/host/openapi.json"));
    EXPECT_NE(description.body.find("\"/host/metrics\""), std::string::npos);
}

TEST_F(MetricsTest, OpenEventStreamIsCountedWhileItRuns)
{
    auto stream = telemetryStream();
    ASSERT_TRUE(stream);
    // Scraped while the stream holds its thread: the host's reserve serves it.
    const std::string during = scrape();
    EXPECT_EQ(pluginSample(during, "velmora_plugin_event_streams_open", {}), 1);
    EXPECT_EQ(sampleValue(during, "velmora_http_plugin_streams"), 1);

    stream.reset();
    // The stream notices its client gone at its next write.
    EXPECT_TRUE(GatewayStack::waitUntil(
        [&] { return sampleValue(scrape(), "velmora_plugin_event_streams_open", {{"plugin", plugin}}) == 0; },
        eventBound));
}

} // namespace
} // namespace vlm::e2e
