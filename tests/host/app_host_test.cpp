// The host assembled in-process: a real broker, a scripted micro service, the
// real plug-in library next to libraries that are no plug-ins. The host
// serves what loaded, reports what did not and what its links do, and stops
// in order.

#include <gtest/gtest.h>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>

#include "VelmoraPlugins.h"
#include "host/HostAppFixture.h"
#include "host/HostTestSupport.h"
#include "support/LogCapture.h"

namespace {

class HostAppTest : public vlm::test::HostAppFixture {
protected:
    void SetUp() override
    {
        HostAppFixture::SetUp();
        const std::string pilot = pilotPlugin();
        startHost(R"(, "threads": 16)",
                  R"({"library": "/no/such/libGone.so", "service_port": 1},
                     {"library": ")" + std::string(VELMORA_NON_PLUGIN_LIBRARY) + R"(", "service_port": 1},)" +
                      pilot + "," + pilot,
                  R"("bus": {"max_message_bytes": 4096},)");
    }

    /// plugins[0].service of the health report.
    Poco::JSON::Object::Ptr serviceReport()
    {
        const auto report = health();
        const auto plugins = report ? report->getArray("plugins") : nullptr;
        return plugins && plugins->size() == 1 ? plugins->getObject(0)->getObject("service") : nullptr;
    }

    vlm::test::LogCapture log;
};

TEST_F(HostAppTest, ServesWhatLoadedReportsEveryFailureAndRefusesOversizeBusPosts)
{
    EXPECT_EQ(app->startedPlugins(), 1u);
    EXPECT_TRUE(log.contains("plug-in /no/such/libGone.so not loaded: no such file"));
    const std::string tooLarge = R"({"to":["d639b3d5-a951-4bc7-a629-91255ebf9638"],"pad":")" + std::string(4096, 'x') + R"("})";
    const auto refused = vlm::test::post("/host/bus", tooLarge).sendTo(app->httpPort());
    EXPECT_EQ(refused.status, 503);
    EXPECT_NE(refused.body.find("too large"), std::string::npos) << refused.body;

    const auto report = health();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getValue<std::string>("status"), "degraded");
    EXPECT_TRUE(report->getObject("mqtt")->getValue<bool>("connected"));
    EXPECT_EQ(report->getObject("mqtt")->getValue<std::string>("station_sn"), "station-7");
    EXPECT_EQ(report->getObject("bus")->getValue<std::uint64_t>("oversize"), 1u);
    const auto plugins = report->getArray("plugins");
    ASSERT_EQ(plugins->size(), 1u);
    EXPECT_EQ(plugins->getObject(0)->getValue<std::string>("guid"), vlm::test::pilotGuid);
    EXPECT_EQ(plugins->getObject(0)->getValue<std::string>("state"), "running");
    const auto link = plugins->getObject(0)->getObject("service");
    EXPECT_EQ(link->getValue<std::string>("link"), "up");
    EXPECT_EQ(link->getValue<int>("established"), 2);  // the plug-in's call and subscription clients
    const auto failed = report->getArray("failed_plugins");
    ASSERT_EQ(failed->size(), 3u);
    const char* reasons[] = {"no such file", "missing entry point", "already loaded"};
    for (unsigned i = 0; i < 3; ++i)
        EXPECT_NE(failed->getObject(i)->getValue<std::string>("reason").find(reasons[i]), std::string::npos);
}

TEST_F(HostAppTest, HealthShowsThePluginsOwnViewOfItsLinksAndCountsReconnections)
{
    ASSERT_TRUE(service.service.wait_for_subscriber("heartBeat", std::chrono::seconds(10)));
    service.service.publish("heartBeat", R"({"seq":1})");
    Poco::JSON::Object::Ptr report;
    ASSERT_TRUE(vlm::test::eventually([&] {
        report = serviceReport();
        const auto ages = report ? report->getObject("last_frame_age_ms") : nullptr;
        return ages && !ages->isNull("subscription") && !ages->isNull("call");
    }));
    for (const char* key : {"oversize_requests_refused", "error_echoes_trimmed", "stale_telemetry_dropped",
                            "event_publications_dropped", "command_answers_dropped"})
        EXPECT_EQ(report->getObject("counters")->getValue<int>(key), 0) << key;

    // To the plug-in's clients a restarted service is exactly this.
    const auto accepted = service.service.accepted_count();
    service.service.close_all_connections();
    ASSERT_TRUE(service.service.wait_for_accepted(accepted + 2, std::chrono::seconds(10)));
    ASSERT_TRUE(vlm::test::eventually([&] {
        report = serviceReport();
        const auto reconnects = report ? report->getObject("reconnects") : nullptr;
        return reconnects && reconnects->getValue<int>("call") + reconnects->getValue<int>("subscription") >= 2;
    }));
    EXPECT_EQ(report->getObject("reconnects")->getValue<int>("call"), 1);
    EXPECT_EQ(report->getObject("reconnects")->getValue<int>("subscription"), 1);
}

TEST_F(HostAppTest, BusTapStreamsTakeAtMostHalfTheHostReserve)
{
    // 16 threads keep 2 for the host's paths; the bus tap may hold 1 of them.
    Poco::Net::HTTPClientSession tap("127.0.0.1", app->httpPort());
    tap.setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest open(Poco::Net::HTTPRequest::HTTP_GET, "/host/bus", Poco::Net::HTTPMessage::HTTP_1_1);
    tap.sendRequest(open);
    Poco::Net::HTTPResponse opened;
    std::istream& in = tap.receiveResponse(opened);
    ASSERT_EQ(opened.getStatus(), 200);
    std::string line;
    ASSERT_TRUE(std::getline(in, line));  // the stream is being served

    const auto second = vlm::test::get("/host/bus").sendTo(app->httpPort());
    EXPECT_EQ(second.status, 503);
    EXPECT_EQ(second.headers.count("Retry-After"), 1u);
    const auto report = health();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getObject("http")->getValue<int>("bus_taps_refused"), 1);
    EXPECT_EQ(report->getObject("http")->getValue<int>("streams_refused"), 0);
}

TEST_F(HostAppTest, StopTakesEverythingDownInOrderAndOnlyOnce)
{
    const auto port = app->httpPort();
    app->stop();
    EXPECT_TRUE(vlm::registeredPluginKeys().empty());
    EXPECT_TRUE(log.contains("plug-in VelmoraPluginPilotControl stopped and unloaded"));
    EXPECT_THROW(vlm::test::get("/host/health").sendTo(port), Poco::Net::NetException);
    EXPECT_EQ(app->health()->getArray("plugins")->getObject(0)->getValue<std::string>("state"), "stopped");
    app->stop();
    EXPECT_EQ(log.count("host stopped", Poco::Message::PRIO_INFORMATION), 1);
}

} // namespace
