// The host's health report shows what the plug-in itself sees of its service
// links, read through the library's PluginLinkHealth: age of the last frame
// and reconnections per client, and the plug-in's refusal and drop counters.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <thread>

#include "app/PluginLinkHealth.h"
#include "host/HostAppFixture.h"

namespace {

using namespace std::chrono_literals;

class HostLinkHealth : public vlm::test::HostAppFixture {
protected:
    void SetUp() override
    {
        HostAppFixture::SetUp();
        startHost();
        ASSERT_EQ(app->startedPlugins(), 1u);
        ASSERT_TRUE(service.service.wait_for_subscriber("heartBeat", 10s));
    }

    /// plugins[0].service of the health report.
    Poco::JSON::Object::Ptr serviceReport()
    {
        const auto report = health();
        const auto plugins = report ? report->getArray("plugins") : nullptr;
        return plugins && plugins->size() == 1 ? plugins->getObject(0)->getObject("service") : nullptr;
    }

    /// Publishes service heartbeats (as the service does) until `done` holds
    /// for the report, at most 50 rounds of 100 ms.
    Poco::JSON::Object::Ptr heartbeatUntil(const std::function<bool(const Poco::JSON::Object&)>& done)
    {
        Poco::JSON::Object::Ptr report;
        for (int round = 0; round < 50; ++round) {
            service.service.publish("heartBeat", R"({"seq":1})");
            std::this_thread::sleep_for(100ms);  // the heartbeat's own period, not a wait for a result
            report = serviceReport();
            if (report && done(*report))
                return report;
        }
        return report;
    }
};

TEST_F(HostLinkHealth, ShowsFrameAgesReconnectionsAndCountersOfThePluginsLinks)
{
    auto report = heartbeatUntil([](const Poco::JSON::Object& s) {
        const auto ages = s.getObject("last_frame_age_ms");
        return ages && !ages->isNull("subscription") && ages->getValue<int>("subscription") < 1000;
    });
    ASSERT_TRUE(report);
    ASSERT_TRUE(report->getObject("last_frame_age_ms")) << "no link fields in the health report";
    // While heartbeats flow the subscription link's last frame is fresh; the
    // call link last received the answers to the start's queries.
    EXPECT_LT(report->getObject("last_frame_age_ms")->getValue<int>("subscription"), 1000);
    EXPECT_FALSE(report->getObject("last_frame_age_ms")->isNull("call"));
    EXPECT_EQ(report->getObject("reconnects")->getValue<int>("call"), 0);
    EXPECT_EQ(report->getObject("reconnects")->getValue<int>("subscription"), 0);
    const auto counters = report->getObject("counters");
    ASSERT_TRUE(counters);
    for (const char* key : {"oversize_requests_refused", "error_echoes_trimmed", "stale_telemetry_dropped",
                            "event_publications_dropped", "command_answers_dropped"})
        EXPECT_EQ(counters->getValue<int>(key), 0) << key;

    // The service goes away and comes back: to the plug-in's clients a
    // restarted service is exactly this, every connection closed, new ones
    // accepted.
    const auto accepted = service.service.accepted_count();
    service.service.close_all_connections();
    ASSERT_TRUE(service.service.wait_for_accepted(accepted + 2, 10s));
    report = heartbeatUntil([](const Poco::JSON::Object& s) {
        const auto reconnects = s.getObject("reconnects");
        return reconnects && reconnects->getValue<int>("call") >= 1 && reconnects->getValue<int>("subscription") >= 1;
    });
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getObject("reconnects")->getValue<int>("call"), 1);
    EXPECT_EQ(report->getObject("reconnects")->getValue<int>("subscription"), 1);
}

TEST(PluginLinkHealthReport, OnlyTheInstanceServingTheAddressIsShown)
{
    const std::string report = R"({"instances":[
        {"service_address":"127.0.0.1","service_port":1,"links":{"call":{"last_frame_age_ms":5,"reconnects":9}},
         "counters":{"x":1}},
        {"service_address":"127.0.0.1","service_port":7700,
         "links":{"call":{"connected":true,"last_frame_age_ms":12,"reconnects":0},
                  "subscription":{"connected":true,"last_frame_age_ms":null,"reconnects":2}},
         "counters":{"oversize_requests_refused":3}}]})";
    Poco::JSON::Object service;
    vlm::host::addPluginLinkHealth(service, report, "127.0.0.1", 7700);
    EXPECT_EQ(service.getObject("last_frame_age_ms")->getValue<int>("call"), 12);
    EXPECT_TRUE(service.getObject("last_frame_age_ms")->isNull("subscription"));
    EXPECT_EQ(service.getObject("reconnects")->getValue<int>("subscription"), 2);
    EXPECT_EQ(service.getObject("counters")->getValue<int>("oversize_requests_refused"), 3);

    Poco::JSON::Object untouched;
    vlm::host::addPluginLinkHealth(untouched, report, "127.0.0.1", 7701);
    vlm::host::addPluginLinkHealth(untouched, "not json", "127.0.0.1", 7700);
    vlm::host::addPluginLinkHealth(untouched, R"({"instances":7})", "127.0.0.1", 7700);
    EXPECT_EQ(untouched.size(), 0u);
}

TEST(PluginLinkHealthReport, ReadsAReportLongerThanTheFirstBuffer)
{
    static const std::string text = "{\"instances\":[]," + std::string(10000, ' ') + "}";
    auto function = [](char* buffer, std::size_t size) -> std::size_t {
        if (buffer && size > 0) {
            const std::size_t n = std::min(size - 1, text.size());
            std::memcpy(buffer, text.data(), n);
            buffer[n] = '\0';
        }
        return text.size();
    };
    EXPECT_EQ(vlm::host::readPluginLinkHealth(function), text);
    EXPECT_FALSE(vlm::host::readPluginLinkHealth(function, 5000).has_value());
}

} // namespace
