// Requests too big for one frame of the micro-service link: every front
// refuses them instead of handing the link a frame the service would close
// the connection over, and no answer carries the big body back.

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

// The host's own intake bounds (HTTP body, MQTT payload) are widened: this is
// about what the plug-in does with a request a station let through.
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
        auto options = FrontsFixture::stationClientOptions();
        options.maxPayloadBytes = 16u << 20;
        return options;
    }
    void SetUp() override
    {
        FrontsFixture::SetUp();
        vehicleConnected(true);
        auto options = groundOptions();
        options.maxPayloadBytes = 16u << 20;
        app.emplace(options, std::vector<std::string>{stationTopic});
    }
    void TearDown() override
    {
        app.reset();
        FrontsFixture::TearDown();
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
    // Each front gives the refusal's log line or answer, or the answer to the next request.
    using Send = std::function<std::string(const std::string&, const std::string&)>;
    const Send viaBus = [&](auto& request, auto&) {
        vlm::test::LogCapture log;
        const std::size_t before = bus->all().size();
        plugin->pushMessage(request);
        for (const auto& line : log.lines())
            if (line.priority == Poco::Message::PRIO_ERROR)
                return line.text;
        return bus->waitForCount(before + 1) ? bus->all()[before] : "";
    };
    const Send viaHttp = [&](auto& request, auto&) {
        Poco::Net::HTTPClientSession session("127.0.0.1", server->port());
        session.setTimeout(Poco::Timespan(120, 0));  // ten megabytes take long under the sanitizers
        return vlm::test::post("/index/api/pilot/pushRoute", request).sendOn(session).body;
    };
    const Send viaMqtt = [&](auto& request, auto& msgId) {
        app->command(stationTopic, request, 15);
        return app->answerText(stationTopic, msgId, std::chrono::seconds(20));
    };
    const std::tuple<std::string, std::string, std::size_t, std::string, Send> fronts[] = {
        // refusal's prefix, the forwarded call's second argument, filler, next request, front
        {"", "pushRoute", 11u << 20, bigRequest("next-0", 0), viaBus},
        {"Pilot response http error msg: ", "pushRoute", 11u << 20, fitting, viaHttp},
        {"Pilot response mqtt error msg: ", "publishToGround", 12u << 20, bigRequest("next-2", 0), viaMqtt}};
    for (std::size_t i = 0; i < std::size(fronts); ++i) {
        const auto& [prefix, second, filler, next, send] = fronts[i];
        SCOPED_TRACE(i);
        const std::string big = bigRequest("big-" + std::to_string(i), filler);
        const std::string refused = send(big, "big-" + std::to_string(i));
        std::string text = refused;
        if (i > 0) {  // an answer: short, without the body, naming the request
            EXPECT_LT(refused.size(), 4096u);
            auto answer = parseObject(refused);
            EXPECT_EQ(answer->getValue<std::string>("msgId") + answer->getValue<std::string>("target"),
                      "big-" + std::to_string(i) + "app");
            EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), 4002);
            text = answer->getObject("message")->getValue<std::string>("msg");
        }
        EXPECT_EQ(text, prefix + "request of " + std::to_string(forwardedFrameSize(big, second)) +
                            " bytes exceeds the link's frame limit of 10485760");
        EXPECT_EQ(state().oversizeRequestsRefused.load(), i + 1);
        EXPECT_EQ(state().errorEchoesTrimmed.load(), i);  // the answer left the request out
        const auto report = parseObject(vlm::describeLinkHealth())->getArray("instances")->getObject(0);
        EXPECT_EQ(report->getValue<int>("service_port"), service.port);
        EXPECT_EQ(report->getObject("counters")->getValue<std::size_t>("oversize_requests_refused"), i + 1);
        const std::string served = send(next, "next-" + std::to_string(i));
        ASSERT_FALSE(served.empty());
        EXPECT_EQ(parseObject(served)->getValue<std::string>("msgId"), "next-" + std::to_string(i));
    }
    EXPECT_EQ(service.callsOf("flightControl").size(), 2u);
    // No frame at or above the limit reached the service, and the call link
    // is the one it was: no connection was closed and opened again for it.
    for (const auto& frame : service.service.frames())
        EXPECT_LT(pilot_rpc::header_size + frame.body.size(), frameLimit);
    EXPECT_EQ(service.service.accepted_count(), acceptedBefore);
    EXPECT_EQ(callClient->reconnect_count(), 0u);
}

} // namespace
