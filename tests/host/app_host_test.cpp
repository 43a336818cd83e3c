// The host assembled in-process: a real broker, a scripted micro service, the
// real plug-in library next to libraries that are no plug-ins. The host
// serves what loaded, reports what did not, and stops in order.

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

using vlm::test::pilotGuid;

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

    vlm::test::LogCapture log;
};

TEST_F(HostAppTest, ServesWhatLoadedAndReportsEveryFailureWithItsReason)
{
    EXPECT_EQ(app->startedPlugins(), 1u);
    EXPECT_EQ(app->failedPlugins(), 3u);
    EXPECT_TRUE(log.contains("plug-in /no/such/libGone.so not loaded: no such file"));

    const auto report = health();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getValue<std::string>("status"), "degraded");
    EXPECT_TRUE(report->getObject("mqtt")->getValue<bool>("connected"));
    EXPECT_EQ(report->getObject("mqtt")->getValue<std::string>("station_sn"), "station-7");
    for (const char* counter : {"oversize_refused", "queue_dropped", "delivered", "queue_depth"})
        EXPECT_TRUE(report->getObject("mqtt")->has(counter)) << counter;
    EXPECT_EQ(report->getObject("http")->getValue<int>("port"), app->httpPort());

    const auto plugins = report->getArray("plugins");
    ASSERT_EQ(plugins->size(), 1u);
    const auto plugin = plugins->getObject(0);
    EXPECT_EQ(plugin->getValue<std::string>("guid"), pilotGuid);
    EXPECT_EQ(plugin->getValue<std::string>("name"), "VelmoraPluginPilotControl");
    EXPECT_EQ(plugin->getValue<int>("type"), 3);
    EXPECT_EQ(plugin->getValue<std::string>("state"), "running");
    const auto link = plugin->getObject("service");
    EXPECT_EQ(link->getValue<std::string>("link"), "up");
    EXPECT_EQ(link->getValue<int>("established"), 2);  // the plug-in's call and subscription clients

    const auto failed = report->getArray("failed_plugins");
    ASSERT_EQ(failed->size(), 3u);
    EXPECT_NE(failed->getObject(0)->getValue<std::string>("reason").find("no such file"), std::string::npos);
    EXPECT_NE(failed->getObject(1)->getValue<std::string>("reason").find("missing entry point"), std::string::npos);
    EXPECT_NE(failed->getObject(2)->getValue<std::string>("reason").find("already loaded"), std::string::npos);
}

TEST_F(HostAppTest, HealthCountsWhatTheBusRefusedAndWhatWaits)
{
    const std::string tooLarge = R"({"to":["d639b3d5-a951-4bc7-a629-91255ebf9638"],"pad":")" +
                                 std::string(4096, 'x') + R"("})";
    const auto refused = vlm::test::post("/host/bus", tooLarge).sendTo(app->httpPort());
    EXPECT_EQ(refused.status, 503);
    EXPECT_NE(refused.body.find("too large"), std::string::npos) << refused.body;
    EXPECT_TRUE(log.contains("bus: refused a message of " + std::to_string(tooLarge.size()) + " bytes from http "));

    const auto report = health();
    ASSERT_TRUE(report);
    const auto bus = report->getObject("bus");
    ASSERT_TRUE(bus);
    EXPECT_EQ(bus->getValue<std::uint64_t>("oversize"), 1u);
    for (const char* counter : {"dropped", "dropped_for_bytes", "tap_dropped", "queued_bytes", "queued"})
        EXPECT_EQ(bus->getValue<std::uint64_t>(counter), 0u) << counter;
}

TEST_F(HostAppTest, BusTapStreamsTakeAtMostHalfTheHostReserveAndHealthCountsRefusals)
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
    const auto http = report->getObject("http");
    EXPECT_EQ(http->getValue<int>("bus_taps_refused"), 1);
    for (const char* counter : {"streams_refused", "streams_refused_per_client", "requests_refused",
                                "slow_clients_cut", "streams", "waiting_requests"})
        EXPECT_EQ(http->getValue<int>(counter), 0) << counter;
    EXPECT_GE(http->getValue<int>("connections"), 2);  // the tap and this request
}

TEST_F(HostAppTest, HostRoutesAnswerGetOnly)
{
    for (const char* path : {"/host/health", "/host/openapi.json"})
        EXPECT_EQ(send(vlm::test::post(path, "{}")).status, 405) << path;
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
