// Requests too big for one frame of the micro-service link: every front
// refuses them with its forwarding-failure answer instead of handing the link
// a frame the service would close the connection over, and no answer carries
// the big body back.

#include <functional>
#include <optional>

#include "FrontsFixture.h"
#include "LinkHealth.h"
#include "PluginFixture.h"
#include "host/HttpTestClient.h"
#include "rpc/rpc_client.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::parseObject;

constexpr std::size_t frameLimit = 10485760;
const std::string stationTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";

// A pushRoute request whose "message" carries `filler` bytes of route data.
std::string bigRequest(const std::string& msgId, std::size_t filler)
{
    return R"({"api":"pushRoute","type":"request","from":"app","target":"station-1","msgId":")" + msgId +
           R"(","message":{"msgId":")" + msgId + R"(","route":")" + std::string(filler, 'w') + R"("}})";
}

// The frame the plug-in would send: the request as it forwards it and the second argument.
std::size_t forwardedFrameSize(const std::string& request, const std::string& second)
{
    return pilot_rpc::call_frame_size(vlm::jsonToString(parseObject(request)), second);
}

// The host's own intake bounds (HTTP body, MQTT payload) widened: this is about
// what the plug-in does with a request a station let through.
vlm::MqttClientOptions roomForBigCommands(vlm::MqttClientOptions options)
{
    options.maxPayloadBytes = 16u << 20;
    return options;
}

class OversizeRequest : public vlm::test::FrontsFixture {
protected:
    OversizeRequest()
    {
        vlm::HttpApiServerOptions options;
        options.maxBodyBytes = 16u << 20;
        server = std::make_shared<vlm::HttpApiServer>(options);
    }
    vlm::MqttClientOptions stationClientOptions() override
    {
        return roomForBigCommands(FrontsFixture::stationClientOptions());
    }
    void SetUp() override
    {
        FrontsFixture::SetUp();
        vehicleConnected(true);
        app.emplace(roomForBigCommands(groundOptions()), std::vector<std::string>{stationTopic});
    }
    void TearDown() override
    {
        app.reset();
        FrontsFixture::TearDown();
    }

    // Parsing and forwarding ten megabytes takes long under the sanitizers.
    std::string postPatiently(const std::string& body)
    {
        Poco::Net::HTTPClientSession session("127.0.0.1", server->port());
        session.setTimeout(Poco::Timespan(120, 0));
        return vlm::test::post("/index/api/pilot/pushRoute", body).sendOn(session).body;
    }
    // Sends the request on the station's command topic; the answer's text.
    std::string command(const std::string& request, const std::string& msgId)
    {
        app->command(stationTopic, request, 15);  // 12 MB take a while to hand over
        return app->answerText(stationTopic, msgId, std::chrono::seconds(20));
    }
    // Hands the request over the bus: the refusal's log line, or the answer sent back.
    std::string push(const std::string& request, const std::string&)
    {
        vlm::test::LogCapture log;
        const std::size_t before = bus->all().size();
        plugin->pushMessage(request);
        for (const auto& line : log.lines())
            if (line.priority == Poco::Message::PRIO_ERROR)
                return line.text;
        return bus->waitForCount(before + 1) ? bus->all()[before] : "";
    }

    // A counter of this plug-in in the exported link health report.
    int reportedCounter(const std::string& name)
    {
        auto instances = parseObject(vlm::describeLinkHealth())->getArray("instances");
        for (std::size_t i = 0; instances && i < instances->size(); ++i) {
            auto instance = instances->getObject(static_cast<unsigned>(i));
            if (instance->getValue<int>("service_port") == service.port)
                return instance->getObject("counters")->getValue<int>(name);
        }
        return -1;
    }

    std::optional<vlm::test::GroundApp> app;
};

TEST_F(OversizeRequest, EachFrontRefusesAndCountsItAndServesTheNextOnTheSameLink)
{
    const std::uint64_t acceptedBefore = service.service.accepted_count();
    const auto callClient = state().callClient();
    ASSERT_TRUE(callClient);
    // Just below the limit still goes through. The route's length also widens
    // the string's length prefix: measure once, then adjust.
    const std::size_t overhead = forwardedFrameSize(bigRequest("next-1", 0), "pushRoute");
    const std::size_t probe = forwardedFrameSize(bigRequest("next-1", frameLimit - 1 - overhead), "pushRoute");
    const std::string fitting = bigRequest("next-1", frameLimit - 1 - overhead - (probe - (frameLimit - 1)));
    ASSERT_EQ(forwardedFrameSize(fitting, "pushRoute"), frameLimit - 1);
    using Send = std::function<std::string(const std::string&, const std::string&)>;
    const std::tuple<std::string, std::string, std::size_t, std::string, Send> fronts[] = {
        // refusal's prefix, the forwarded call's second argument, filler, next request, front
        {"", "pushRoute", 11u << 20, bigRequest("next-0", 0), [&](auto& r, auto& id) { return push(r, id); }},
        {"Pilot response http error msg: ", "pushRoute", 11u << 20, fitting,
         [&](auto& r, auto&) { return postPatiently(r); }},
        {"Pilot response mqtt error msg: ", "publishToGround", 12u << 20, bigRequest("next-2", 0),
         [&](auto& r, auto& id) { return command(r, id); }}};
    for (std::size_t i = 0; i < std::size(fronts); ++i) {
        const auto& [prefix, second, filler, next, send] = fronts[i];
        SCOPED_TRACE(i);
        const std::string big = bigRequest("big-" + std::to_string(i), filler);
        const std::string refused = send(big, "big-" + std::to_string(i));
        std::string text = refused;
        if (i > 0) {  // an answer: short, without the body, naming the request
            EXPECT_LT(refused.size(), 4096u);
            EXPECT_EQ(refused.find("wwww"), std::string::npos);
            auto answer = parseObject(refused);
            EXPECT_EQ(answer->getValue<std::string>("msgId"), "big-" + std::to_string(i));
            EXPECT_EQ(answer->getValue<std::string>("target"), "app");
            EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), 4002);
            text = answer->getObject("message")->getValue<std::string>("msg");
        }
        EXPECT_EQ(text, prefix + "request of " + std::to_string(forwardedFrameSize(big, second)) +
                            " bytes exceeds the link's frame limit of 10485760");
        EXPECT_EQ(state().oversizeRequestsRefused.load(), i + 1);
        EXPECT_EQ(state().errorEchoesTrimmed.load(), i);  // the answer left the request out
        EXPECT_EQ(reportedCounter("oversize_requests_refused"), static_cast<int>(i + 1));
        const std::string served = send(next, "next-" + std::to_string(i));
        ASSERT_FALSE(served.empty());
        EXPECT_EQ(parseObject(served)->getValue<std::string>("msgId"), "next-" + std::to_string(i));
    }
    EXPECT_EQ(service.callsOf("flightControl").size(), 2u);
    EXPECT_EQ(app->count([](const std::string&, const std::string& payload) {
        return payload.size() > (1u << 20) && payload.find(R"("type":"response")") != std::string::npos;
    }), 0);
    // No frame at or above the limit reached the service, and the call link
    // is the one it was: no connection was closed and opened again for it.
    for (const auto& frame : service.service.frames())
        EXPECT_LT(pilot_rpc::header_size + frame.body.size(), frameLimit);
    EXPECT_EQ(service.service.accepted_count(), acceptedBefore);
    EXPECT_EQ(callClient->reconnect_count(), 0u);
}

} // namespace
