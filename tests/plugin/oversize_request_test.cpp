// Requests too big for one frame of the micro-service link: every front
// refuses them with its forwarding-failure answer instead of handing the link
// a frame the service would close the connection over, and no answer carries
// the big body back.

#include <optional>

#include "FrontsFixture.h"
#include "LinkHealth.h"
#include "PluginFixture.h"
#include "host/HttpTestClient.h"
#include "rpc/rpc_client.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;

constexpr std::size_t frameLimit = 10485760;
const std::string stationTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";

// A request envelope whose "message" carries `filler` bytes of route data.
std::string bigRequest(const std::string& api, const std::string& msgId, std::size_t filler)
{
    return R"({"api":")" + api + R"(","type":"request","from":"app","target":"station-1","msgId":")" + msgId +
           R"(","message":{"msgId":")" + msgId + R"(","route":")" + std::string(filler, 'w') + R"("}})";
}

// The frame the plug-in would have sent: the request as it forwards it (its
// JSON text) and the second argument.
std::size_t forwardedFrameSize(const std::string& request, const std::string& second)
{
    return pilot_rpc::call_frame_size(vlm::jsonToString(parseObject(request)), second);
}

std::string refusalText(std::size_t frameSize)
{
    return "request of " + std::to_string(frameSize) + " bytes exceeds the link's frame limit of 10485760";
}

// The plug-in and a scripted service, with a host HTTP server that admits
// bodies past the frame limit, and a ground application on the broker.
class OversizeRequest : public vlm::test::FrontsFixture {
protected:
    OversizeRequest()
    {
        vlm::HttpApiServerOptions options;
        options.maxBodyBytes = 16u << 20;
        server = std::make_shared<vlm::HttpApiServer>(options);
    }

    void SetUp() override
    {
        FrontsFixture::SetUp();
        vehicleConnected(true);
        acceptedBefore = service.service.accepted_count();
        callClient = state().callClient();
        ASSERT_TRUE(callClient);
    }

    /// Posts a pushRoute body of ten megabytes or more: parsing and
    /// forwarding that takes long under the sanitizers, so the client waits
    /// longer than for ordinary requests.
    vlm::test::HttpAnswer postPatiently(const std::string& body)
    {
        Poco::Net::HTTPClientSession session("127.0.0.1", server->port());
        session.setTimeout(Poco::Timespan(120, 0));
        return vlm::test::post("/index/api/pilot/pushRoute", body).sendOn(session);
    }

    /// No frame at or above the limit reached the service, and the call link
    /// is the one it was: no connection was closed and opened again for it.
    void expectLinkUntouched()
    {
        for (const auto& frame : service.service.frames())
            EXPECT_LT(pilot_rpc::header_size + frame.body.size(), frameLimit);
        EXPECT_EQ(service.service.accepted_count(), acceptedBefore);
        EXPECT_EQ(callClient->reconnect_count(), 0u);
        EXPECT_TRUE(callClient->has_connected());
    }

    /// A counter of this plug-in in the exported link health report.
    int reportedCounter(const std::string& name)
    {
        auto instances = parseObject(vlm::describeLinkHealth())->getArray("instances");
        for (std::size_t i = 0; instances && i < instances->size(); ++i) {
            auto instance = instances->getObject(static_cast<unsigned>(i));
            if (instance->getValue<int>("service_port") == service.port)
                return instance->getObject("counters")->getValue<int>(name);
        }
        ADD_FAILURE() << "no instance serves port " << service.port;
        return -1;
    }

    std::uint64_t acceptedBefore = 0;
    std::shared_ptr<pilot_rpc::rpc_client> callClient;
};

TEST_F(OversizeRequest, HttpAnswers4002NamingTheSizeWithoutTheBody)
{
    const std::string body = bigRequest("pushRoute", "h1", 11u << 20);
    const auto answer = postPatiently(body);
    ASSERT_EQ(answer.status, 200);
    EXPECT_LT(answer.body.size(), 4096u);
    EXPECT_EQ(answer.body.find("wwww"), std::string::npos);
    auto json = answer.json();
    EXPECT_EQ(json->getValue<std::string>("msgId"), "h1");
    EXPECT_EQ(json->getValue<std::string>("target"), "app");
    auto inner = json->getObject("message");
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
    EXPECT_EQ(inner->getValue<std::string>("msg"),
              "Pilot response http error msg: " + refusalText(forwardedFrameSize(body, "pushRoute")));
    EXPECT_EQ(inner->getValue<std::string>("msgId"), "h1");
    EXPECT_TRUE(service.callsOf("flightControl").empty());
    EXPECT_EQ(state().oversizeRequestsRefused.load(), 1u);
    EXPECT_EQ(reportedCounter("oversize_requests_refused"), 1);

    // Just below the limit still goes through, on the same link.
    // (The route's length also widens the string's length prefix: measure once, then adjust.)
    const std::size_t overhead = forwardedFrameSize(bigRequest("pushRoute", "h2", 0), "pushRoute");
    const std::size_t probe = forwardedFrameSize(bigRequest("pushRoute", "h2", frameLimit - 1 - overhead), "pushRoute");
    const std::string fitting = bigRequest("pushRoute", "h2", frameLimit - 1 - overhead - (probe - (frameLimit - 1)));
    ASSERT_EQ(forwardedFrameSize(fitting, "pushRoute"), frameLimit - 1);
    const auto served = postPatiently(fitting);
    ASSERT_EQ(served.status, 200);
    auto servedJson = served.json();
    ASSERT_TRUE(servedJson) << served.body.substr(0, 200);
    EXPECT_EQ(servedJson->getValue<std::string>("msgId"), "h2");
    EXPECT_EQ(service.callsOf("flightControl").size(), 1u);
    expectLinkUntouched();
}

TEST_F(OversizeRequest, BusMessageIsLoggedAndDroppedWhileTheNextIsServed)
{
    LogCapture log;
    const std::string message = bigRequest("pushRoute", "b1", 11u << 20);
    plugin->pushMessage(message);
    EXPECT_EQ(log.errors(refusalText(forwardedFrameSize(message, "pushRoute"))), 1);
    EXPECT_EQ(state().oversizeRequestsRefused.load(), 1u);

    plugin->pushMessage(R"({"api":"pushRoute","msgId":"b2","message":{}})");
    ASSERT_TRUE(bus->waitForCount(1));
    EXPECT_EQ(parseObject(bus->all()[0])->getValue<std::string>("msgId"), "b2");
    ASSERT_EQ(service.callsOf("flightControl").size(), 1u);
    EXPECT_EQ(parseObject(service.callsOf("flightControl")[0].args[0])->getValue<std::string>("msgId"), "b2");
    expectLinkUntouched();
}

// Every MQTT client of the 12 MB command test (the station's and the ground
// application's) gets its options through here: the adapter's own intake
// bound would refuse the command before the plug-in sees it, and this test is
// about what the plug-in does with one that a station let through.
vlm::MqttClientOptions roomForTheBigCommand(vlm::MqttClientOptions options)
{
    options.maxPayloadBytes = 16u << 20;
    return options;
}

// A 12 MB command on the station's command topic through a real broker.
class OversizeMqttCommand : public OversizeRequest {
protected:
    vlm::MqttClientOptions stationClientOptions() override
    {
        return roomForTheBigCommand(OversizeRequest::stationClientOptions());
    }
    void SetUp() override
    {
        OversizeRequest::SetUp();
        app.emplace(roomForTheBigCommand(groundOptions()), std::vector<std::string>{stationTopic});
    }
    void TearDown() override
    {
        app.reset();
        OversizeRequest::TearDown();
    }

    std::optional<vlm::test::GroundApp> app;
};

TEST_F(OversizeMqttCommand, NeverReachesTheServiceAndTheNextCommandIsAnsweredAtOnce)
{
    const std::string command = bigRequest("pushRoute", "m1", 12u << 20);
    app->command(stationTopic, command, 15);  // 12 MB take a while to hand over
    const std::string refusedText = app->answerText(stationTopic, "m1", std::chrono::seconds(20));
    ASSERT_FALSE(refusedText.empty()) << "no answer to the 12 MB command";
    EXPECT_LT(refusedText.size(), 4096u);
    EXPECT_EQ(refusedText.find("wwww"), std::string::npos);
    // Only the command itself comes back big (same topic), never an answer echoing it.
    EXPECT_EQ(app->count([](const std::string&, const std::string& payload) {
        return payload.size() > (1u << 20) && payload.find(R"("type":"response")") != std::string::npos;
    }), 0);
    auto refused = parseObject(refusedText);
    auto inner = refused->getObject("message");
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
    // The cloud side forwards it with the service function name as second argument.
    EXPECT_EQ(inner->getValue<std::string>("msg"),
              "Pilot response mqtt error msg: " + refusalText(forwardedFrameSize(command, "publishToGround")));

    app->command(stationTopic, R"({"api":"pushRoute","type":"request","from":"app","target":"station-1","msgId":"m2"})");
    // Before, the service closed the link over the big frame and this one
    // went unanswered for more than five seconds.
    auto next = app->answerTo(stationTopic, "m2", std::chrono::seconds(1));
    ASSERT_TRUE(next) << "the command after the refused one was not answered within a second";
    EXPECT_EQ(next->getObject("message")->getValue<int>("code"), 200);
    EXPECT_EQ(state().oversizeRequestsRefused.load(), 1u);
    expectLinkUntouched();
}

} // namespace
