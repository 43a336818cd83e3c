#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>
#include <system_error>
#include <thread>

#include "FrontsFixture.h"
#include "LinkHealth.h"
#include "PluginFixture.h"
#include "host/HttpTestClient.h"
#include "rpc/function_id.h"
#include "rpc/rpc_client.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::parseObject;

const std::string stationTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/station-1/cmd";
const std::string pilotTopic = "/velmora/pilot/FBE242B9-B226-4401-A340-36ABD4D753AD/UAV-1/cmd";

class Fronts : public vlm::test::FrontsFixture {
protected:
    void SetUp() override
    {
        FrontsFixture::SetUp();
        app.emplace(appOptions(), std::vector<std::string>{stationTopic, pilotTopic});
    }
    void TearDown() override
    {
        app.reset();
        FrontsFixture::TearDown();
    }
    virtual vlm::MqttClientOptions appOptions() { return groundOptions(); }

    vlm::test::HttpAnswer call(const std::string& api, const std::string& body = R"({"type":"request","from":"app"})")
    {
        return vlm::test::post("/index/api/pilot/" + api, body).sendTo(server->port());
    }
    Poco::JSON::Object::Ptr errorTo(const std::string& api, int code)
    {
        const auto answer = call(api, R"({"type":"request","from":"app","msgId":"e"})");
        EXPECT_EQ(answer.json()->getValue<std::string>("msgId"), "e") << answer.body;
        auto inner = answer.json()->getObject("message");
        EXPECT_EQ(inner->getValue<int>("code"), code) << answer.body;
        return inner;
    }
    Poco::JSON::Object::Ptr ask(const std::string& topic, const std::string& api, const std::string& msgId)
    {
        app->command(topic, R"({"api":")" + api + R"(","type":"request","from":"app","target":"station-1","msgId":")" +
                                msgId + R"("})");
        return app->answerTo(topic, msgId);
    }
    int seen(const std::string& part)
    {
        return app->count([&](const std::string&, const std::string& p) { return p.find(part) != std::string::npos; });
    }
    std::optional<vlm::test::GroundApp> app;
};

// Callers have always been paced by a 50 ms pause after each forwarded answer.
TEST_F(Fronts, HttpAnswersAreTheServiceTextAfterThePauseOrAnErrorAnswer)
{
    const auto started = std::chrono::steady_clock::now();
    const auto answer = call("getConfig", R"({"type":"request","from":"app","msgId":"9"})");
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(50));
    EXPECT_EQ(answer.body, vlm::test::ScriptedService::standardAnswer(service.callsOf("telementry").at(0).args));

    EXPECT_EQ(call("pushRoute").body,
              R"({"code":4001,"id":"UAV-1","msg":"The vehicle not connected","type":"response"})");
    vehicleConnected(true);
    EXPECT_EQ(errorTo("hangerImageTransSwitch", 4002)->getValue<std::string>("msg"),
              "Pilot response http error msg: api has no service category: hangerImageTransSwitch");
    service.respondWith([](const std::string&, const std::vector<std::string>&) -> std::string {
        throw std::runtime_error("config store locked");
    });
    LogCapture log;
    EXPECT_EQ(errorTo("getConfig", 4002)->getValue<std::string>("msg"), "config store locked");
    EXPECT_EQ(log.errors(" response http msg: config store locked, error code: 4002"), 1);
    EXPECT_TRUE(service.callsOf("flightControl").empty());

    // With the service gone: the link's own socket error and the system's text for it.
    service.service.stop();
    const auto down = call("getConfig").json();
    ASSERT_TRUE(down && down->getObject("message"));
    const int code = down->getObject("message")->getValue<int>("code");
    EXPECT_TRUE(code > 0 && code < 4001) << code;
    EXPECT_EQ(down->getObject("message")->getValue<std::string>("msg"), std::system_category().message(code));
}

// Results the service pushed as events are given once without a call, then asked
// for again; a new route operation clears the route result and progress.
TEST_F(Fronts, HttpCachedResultsAreGivenOnceAndRouteOperationsClearThem)
{
    vehicleConnected(true);
    using Impl = vlm::PilotControlPImpl;
    const std::tuple<const char*, const char*, std::string Impl::*, const char*> cases[] = {
        {"syncRoute", "getSyncRouteResult", &Impl::lastRoute, "flightControl"},
        {"getRunInfo", "getRunInfoResult", &Impl::lastRunInfo, "firmwareUpdate"},
        {"getBinInfo", "getBinInfoResult", &Impl::lastBinInfo, "firmwareUpdate"},
        {"softUpload", "getSoftUploadResult", &Impl::lastSoftUpload, "firmwareUpdate"}};
    LogCapture log;
    for (const auto& [event, api, slot, category] : cases) {
        const std::string cached = std::string(R"({"cached":")") + api + R"("})";
        service.service.publish(event, cached);
        ASSERT_TRUE(vlm::test::eventually([&, slot = slot] {
            std::lock_guard<std::mutex> lock(state().cacheMutex);
            return state().*slot == cached;
        })) << api;
        const size_t before = service.callsOf(category).size();
        EXPECT_EQ(call(api).body, cached);
        EXPECT_EQ(call(api).json()->getValue<std::string>("api"), api);
        EXPECT_EQ(service.callsOf(category).size(), before + 1) << api;
    }
    EXPECT_EQ(log.infos(R"(return route operator result: {"cached":"getSyncRouteResult"})"), 1);
    for (const char* api : {"pushRoute", "syncRoute", "deleteWayPointList"}) {
        {
            std::lock_guard<std::mutex> lock(state().cacheMutex);
            state().lastRoute = state().lastProgress = "old";
        }
        EXPECT_EQ(call(api).json()->getValue<std::string>("api"), api);
        std::lock_guard<std::mutex> lock(state().cacheMutex);
        EXPECT_EQ(state().lastRoute + state().lastProgress, "") << api;
    }
}

// "factory" sends any API to the vendor procedure; other cloud commands go to the base one.
TEST_F(Fronts, MqttCloudCommandsGoToTheServiceByFactoryAnd135)
{
    vehicleConnected(true);
    app->command(stationTopic, R"({"api":"getConfig","factory":true,"type":"request","msgId":"c1"})");
    app->command(stationTopic, R"({"api":"hangerImageTransSwitch","type":"request","msgId":"c2"})");
    ASSERT_TRUE(ask(stationTopic, "pushRoute", "c3"));
    ASSERT_TRUE(service.waitForCalls("djiControl", 1));
    const auto dji = service.callsOf("djiControl");
    ASSERT_EQ(dji[0].args.size(), 1u);
    EXPECT_EQ(parseObject(dji[0].args[0])->getValue<std::string>("msgId"), "c1");
    const auto base = service.callsOf("pilotControlBase");  // setSelfGuid at start, then two
    ASSERT_EQ(base.size(), 3u);
    EXPECT_EQ(base[1].args[1], "hangerImageTransSwitch");
    EXPECT_EQ(base[2].args[1], "publishToGround");
    EXPECT_TRUE(service.callsOf("telementry").empty());
}

// Each early exit ends the message there: a marker sent after it is answered, and the early
// one was neither forwarded nor answered (the broker echoes the command itself once).
TEST_F(Fronts, MqttEachEarlyExitEndsTheMessageThere)
{
    vehicleConnected(true);
    vlm::test::LogCapture log;
    const std::string exits[] = {R"("api":"setCommLink","type":"request")", R"("api":"getConfig","type":"response")",
                                 R"("type":"request")", R"("api":"pushTelemetry","type":"request","alt":5)"};
    for (std::size_t i = 0; i < std::size(exits); ++i) {
        const std::string msgId = "e" + std::to_string(i);
        app->command(pilotTopic, "{" + exits[i] + R"(,"msgId":")" + msgId + R"("})");
        ASSERT_TRUE(ask(pilotTopic, "getConfig", "m" + msgId)) << exits[i];
        EXPECT_EQ(seen(R"("msgId":")" + msgId + '"'), 1) << exits[i];
    }
    EXPECT_EQ(log.errors("param api is empty"), 1);
    EXPECT_EQ(seen("setCommLink"), 1);  // nor answered as an unknown API
    for (const auto& call : service.callsOf("telementry"))  // the markers only
        EXPECT_EQ(call.args[1], "getConfig");
    // Ground telemetry is a record (kind 3) for the record plug-in, with its topic.
    std::vector<Poco::JSON::Object::Ptr> records;
    for (const auto& text : bus->all())
        if (text.find(R"("alt":5)") != std::string::npos)
            records.push_back(parseObject(text));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]->getValue<std::string>("api"), "mrpAddRPRecord");
    EXPECT_EQ(records[0]->getObject("data")->getValue<std::string>("topic"), pilotTopic);
    EXPECT_EQ(records[0]->getObject("data")->getObject("record")->getValue<int>("alt"), 5);
}

// Requests too big for one frame of the micro-service link: every front
// refuses them instead of handing the link a frame the service would close
// the connection over, and no answer carries the big body back.

constexpr std::size_t frameLimit = 10485760;

std::string bigRequest(const std::string& msgId, std::size_t filler)
{
    return R"({"api":"pushRoute","type":"request","from":"app","target":"station-1","msgId":")" + msgId +
           R"(","message":{"msgId":")" + msgId + R"(","route":")" + std::string(filler, 'w') + R"("}})";
}

// The frame the plug-in would send: the request as it forwards it, and the second argument.
std::size_t forwardedFrameSize(const std::string& request, const std::string& second)
{
    return pilot_rpc::call_frame_size(vlm::jsonToString(parseObject(request)), second);
}

// Answers that never come are bounded by the plug-in's stop: the caller is
// released with an error instead of waiting ten minutes.
TEST_F(Fronts, HttpAStopReleasesACallerStillWaitingForItsAnswer)
{
    service.service.withhold_answers("telementry");
    std::thread stopper([this] {  // a withheld call never reaches the recorder: watch for its frame
        const uint32_t forwarded = pilot_rpc::function_id("telementry");
        service.service.wait_for_frames(
            [forwarded](const std::vector<pilot_rpc::received_frame>& frames) {
                return std::any_of(frames.begin(), frames.end(),
                                   [&](const auto& f) { return f.frame_type == 0 && f.func_id == forwarded; });
            },
            std::chrono::seconds(5));
        plugin->stop();
    });
    const auto answer = call("getConfig");
    stopper.join();
    ASSERT_TRUE(answer.json() && answer.json()->getObject("message")) << answer.body;
    EXPECT_EQ(answer.json()->getObject("message")->getValue<int>("code"), 4002);
}

// A frame the link cannot read makes it drop every pending call without
// calling back; a command then waiting for its answer must still get one, once.
TEST_F(Fronts, MqttACommandWhoseCallTheLinkDropsIsAnsweredOnce)
{
    service.service.withhold_answers("telementry");
    app->command(pilotTopic, R"({"api":"getConfig","type":"request","from":"app","target":"station-1","msgId":"lost-1"})");
    std::uint64_t callConnection = 0;  // a withheld call is received, but not handed to the recorder
    ASSERT_TRUE(service.service.wait_for_frames(
        [&](const std::vector<pilot_rpc::received_frame>& frames) {
            for (const auto& frame : frames)
                if (frame.decoded.find("lost-1") != std::string::npos)
                    callConnection = frame.connection;
            return callConnection != 0;
        },
        std::chrono::seconds(10)));
    pilot_rpc::frame_header badType;
    badType.frame_type = 7;
    badType.body_len = 1;
    ASSERT_TRUE(service.service.send_frame(callConnection, badType, "x"));
    const auto answer = app->answerTo(pilotTopic, "lost-1");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), ECONNABORTED);

    service.service.withhold_answers("telementry", false);
    ASSERT_TRUE(ask(pilotTopic, "getConfig", "after-1"));
    EXPECT_EQ(app->count([](const std::string&, const std::string& p) {
        return p.find(R"("msgId":"lost-1")") != std::string::npos && p.find(R"("type":"response")") != std::string::npos;
    }), 1);
}

class OversizeRequest : public Fronts {
protected:
    OversizeRequest()
    {
        vlm::HttpApiServerOptions options;
        options.maxBodyBytes = 16u << 20;
        server = std::make_shared<vlm::HttpApiServer>(options);
    }
    static vlm::MqttClientOptions roomy(vlm::MqttClientOptions options)
    {
        options.maxPayloadBytes = 16u << 20;
        return options;
    }
    vlm::MqttClientOptions stationClientOptions() override { return roomy(FrontsFixture::stationClientOptions()); }
    vlm::MqttClientOptions appOptions() override { return roomy(groundOptions()); }
};

TEST_F(OversizeRequest, EachFrontRefusesAndCountsItAndServesTheNextOnTheSameLink)
{
    vehicleConnected(true);
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
        EXPECT_EQ(report->getObject("counters")->getValue<std::size_t>("oversize_requests_refused"), i + 1);
        EXPECT_EQ(parseObject(send(next, "next-" + std::to_string(i)))->getValue<std::string>("msgId"),
                  "next-" + std::to_string(i));
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
