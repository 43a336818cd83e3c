// The host assembled in-process: a real broker, a scripted micro service, the
// real plug-in library next to libraries that are no plug-ins. The host
// serves what loaded, reports what did not and what its links do, shows its
// bus on the tap, and stops in order.

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

using vlm::test::readBlock;

/// The next event block, past keep-alive comments.
std::string readEvent(std::istream& in)
{
    std::string block = ":";
    for (int i = 0; i < 100 && block.rfind(':', 0) == 0; ++i)
        block = readBlock(in);
    return block;
}

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

    /// Opens the bus tap; returns the stream after its retry hint.
    std::istream& openTap()
    {
        tap.setPort(app->httpPort());
        tap.setTimeout(Poco::Timespan(10, 0));
        Poco::Net::HTTPRequest open(Poco::Net::HTTPRequest::HTTP_GET, "/host/bus", Poco::Net::HTTPMessage::HTTP_1_1);
        tap.sendRequest(open);
        std::istream& in = tap.receiveResponse(tapResponse);
        EXPECT_EQ(tapResponse.getContentType(), "text/event-stream");
        EXPECT_EQ(readBlock(in), "retry: 3000\n");
        return in;
    }

    vlm::test::LogCapture log;
    Poco::Net::HTTPClientSession tap{"127.0.0.1"};
    Poco::Net::HTTPResponse tapResponse;
};

TEST_F(HostAppTest, ServesWhatLoadedAndReportsEveryFailure)
{
    EXPECT_EQ(app->startedPlugins(), 1u);
    EXPECT_TRUE(log.contains("plug-in /no/such/libGone.so not loaded: no such file"));
    const auto report = health();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getValue<std::string>("status"), "degraded");
    EXPECT_TRUE(report->getObject("mqtt")->getValue<bool>("connected"));
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
    Poco::JSON::Object::Ptr link;
    const auto linkReportHas = [&](const char* object, const char* client) {
        link = app->health()->getArray("plugins")->getObject(0)->getObject("service");
        const auto part = link ? link->getObject(object) : nullptr;
        return part && part->has(client) && !part->isNull(client);
    };
    ASSERT_TRUE(vlm::test::eventually([&] { return linkReportHas("last_frame_age_ms", "subscription"); }));
    EXPECT_FALSE(link->getObject("last_frame_age_ms")->isNull("call"));
    EXPECT_EQ(link->getObject("counters")->getValue<int>("oversize_requests_refused"), 0);

    // To the plug-in's clients a restarted service is exactly this.
    const auto accepted = service.service.accepted_count();
    service.service.close_all_connections();
    ASSERT_TRUE(service.service.wait_for_accepted(accepted + 2, std::chrono::seconds(10)));
    ASSERT_TRUE(vlm::test::eventually([&] {
        return linkReportHas("reconnects", "call") && link->getObject("reconnects")->getValue<int>("call") == 1 &&
               link->getObject("reconnects")->getValue<int>("subscription") == 1;
    }));
}

TEST_F(HostAppTest, BusTapShowsEachMessageInOrderRefusesBadPostsAndTakesAtMostHalfTheReserve)
{
    std::istream& in = openTap();
    // 16 threads keep 2 for the host's paths; the bus tap may hold 1 of them.
    const auto second = vlm::test::get("/host/bus").sendTo(app->httpPort());
    EXPECT_EQ(second.status, 503);
    EXPECT_EQ(second.headers.count("Retry-After"), 1u);
    EXPECT_EQ(health()->getObject("http")->getValue<int>("bus_taps_refused"), 1);

    const std::string tooLarge = R"({"to":["d639b3d5-a951-4bc7-a629-91255ebf9638"],"pad":")" +
                                 std::string(4096, 'x') + R"("})";
    const std::pair<std::string, std::string> refused[] = {{"{not json", "400 bus message is not JSON"},
                                                           {R"({"to":"x"})", "400 list of receiver GUIDs"},
                                                           {tooLarge, "503 too large"}};
    for (const auto& [body, answer] : refused) {
        const auto got = send(vlm::test::post("/host/bus", body));
        EXPECT_EQ(std::to_string(got.status), answer.substr(0, 3));
        EXPECT_NE(got.body.find(answer.substr(4)), std::string::npos) << got.body;
    }
    EXPECT_EQ(health()->getObject("bus")->getValue<std::uint64_t>("oversize"), 1u);

    const std::string body = R"({"to": ["aaaaaaaa-1111-2222-3333-444444444444"], "api": "getConfig"})";
    const auto answer = send(vlm::test::post("/host/bus", body));
    EXPECT_EQ(answer.status, 202);
    ASSERT_TRUE(answer.json());
    EXPECT_EQ(answer.json()->getValue<std::string>("msg"), "queued");
    const std::uint64_t rejected = app->bus().post("line one\nline two", "test");
    EXPECT_EQ(readEvent(in), "id: " + std::to_string(answer.json()->getValue<std::uint64_t>("seq")) +
                                 "\nevent: bus\ndata: " + body + "\n");
    EXPECT_EQ(readEvent(in), "id: " + std::to_string(rejected) + "\nevent: rejected\ndata: line one\ndata: line two\n");
}

TEST_F(HostAppTest, StopEndsOpenStreamsAndTakesEverythingDownInOrderAndOnlyOnce)
{
    std::istream& in = openTap();
    const auto port = app->httpPort();
    app->stop();
    std::string block = "-";
    for (int i = 0; i < 100 && !block.empty(); ++i)
        block = readBlock(in);
    EXPECT_EQ(block, "") << "the tap stream ended";
    EXPECT_TRUE(vlm::registeredPluginKeys().empty());
    EXPECT_TRUE(log.contains("plug-in VelmoraPluginPilotControl stopped and unloaded"));
    EXPECT_THROW(vlm::test::get("/host/health").sendTo(port), Poco::Net::NetException);
    EXPECT_EQ(app->health()->getArray("plugins")->getObject(0)->getValue<std::string>("state"), "stopped");
    app->stop();
    EXPECT_EQ(log.count("host stopped", Poco::Message::PRIO_INFORMATION), 1);
}

} // namespace
