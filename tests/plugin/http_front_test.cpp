#include <system_error>
#include <thread>

#include "FrontsFixture.h"
#include "host/HttpTestClient.h"
#include "rpc/function_id.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;

class HttpFront : public vlm::test::FrontsFixture {
protected:
    vlm::test::HttpAnswer call(const std::string& api, const std::string& body = R"({"type":"request","from":"app"})")
    {
        return vlm::test::post("/index/api/pilot/" + api, body).sendTo(server->port());
    }
    // The inner message of an error answer to a request with msgId "e".
    Poco::JSON::Object::Ptr errorTo(const std::string& api)
    {
        const auto answer = call(api, R"({"type":"request","from":"app","msgId":"e"})");
        EXPECT_TRUE(answer.json()) << answer.status << " [" << answer.body << "]";
        EXPECT_EQ(answer.json()->getValue<std::string>("msgId"), "e");
        return answer.json()->getObject("message");
    }
};

// Callers have always been paced by a 50 ms pause after each forwarded answer.
TEST_F(HttpFront, ForwardsARequestAndAnswersWithTheServiceTextAfterThePause)
{
    LogCapture log;
    const auto started = std::chrono::steady_clock::now();
    const auto answer = call("getConfig", R"({"from":"app","target":"station-1","msgId":"9"})");
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(50));
    EXPECT_EQ(log.errors("param type error"), 1);  // logged, and still served
    const auto forwarded = service.callsOf("telementry");
    ASSERT_EQ(forwarded.size(), 1u);
    EXPECT_EQ(forwarded[0].args[1], "getConfig");
    EXPECT_EQ(answer.body, vlm::test::ScriptedService::standardAnswer(forwarded[0].args));
    for (const char* unserved : {"getPhotoCount", "getDatDirPath", "PushRoute"})  // 308 and up, or no API
        EXPECT_EQ(call(unserved).status, 404) << unserved;
}

TEST_F(HttpFront, RefusalsAndFailuresAreErrorAnswers)
{
    EXPECT_EQ(call("pushRoute").body, R"({"code":4001,"id":"UAV-1","msg":"The vehicle not connected","type":"response"})");
    EXPECT_TRUE(service.callsOf("flightControl").empty());
    vehicleConnected(true);
    auto inner = errorTo("hangerImageTransSwitch");
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
    EXPECT_EQ(inner->getValue<std::string>("msg"),
              "Pilot response http error msg: api has no service category: hangerImageTransSwitch");

    service.respondWith([](const std::string&, const std::vector<std::string>&) -> std::string {
        throw std::runtime_error("config store locked");
    });
    LogCapture log;
    inner = errorTo("getConfig");
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
    EXPECT_EQ(inner->getValue<std::string>("msg"), "config store locked");
    EXPECT_EQ(log.errors(" response http msg: config store locked, error code: 4002"), 1);

    // A service that is down: the link's own socket error with the system's text for it.
    service.service.stop();
    inner = errorTo("getConfig");
    ASSERT_TRUE(inner);
    const int code = inner->getValue<int>("code");
    EXPECT_GT(code, 0);
    EXPECT_LT(code, 4001);
    EXPECT_EQ(inner->getValue<std::string>("msg"), std::system_category().message(code));
}

// An answer that never comes is bounded by the plug-in's stop.
TEST_F(HttpFront, AStopReleasesACallerStillWaitingForItsAnswer)
{
    service.service.withhold_answers("telementry");
    std::thread stopper([this] {
        const uint32_t forwarded = pilot_rpc::function_id("telementry");
        service.service.wait_for_frames(
            [forwarded](const std::vector<pilot_rpc::received_frame>& frames) {
                return std::any_of(frames.begin(), frames.end(),
                                   [&](const auto& f) { return f.frame_type == 0 && f.func_id == forwarded; });
            },
            std::chrono::seconds(5));
        plugin->stop();
    });
    const auto inner = errorTo("getConfig");
    stopper.join();
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
}

// Results the service pushed as events are given once without a call; the
// next request goes to the service. A new route operation clears the route
// result and progress.
TEST_F(HttpFront, CachedResultsAreGivenOnceAndRouteOperationsClearThem)
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
        SCOPED_TRACE(api);
        const std::string cached = std::string(R"({"cached":")") + api + R"("})";
        service.service.publish(event, cached);
        ASSERT_TRUE(vlm::test::eventually([&, slot = slot] {
            std::lock_guard<std::mutex> lock(state().cacheMutex);
            return state().*slot == cached;
        }));
        const size_t before = service.callsOf(category).size();
        EXPECT_EQ(call(api).body, cached);
        EXPECT_EQ(call(api).json()->getValue<std::string>("api"), api);
        ASSERT_EQ(service.callsOf(category).size(), before + 1);
        EXPECT_EQ(service.callsOf(category).back().args[1], api);
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

// With the six-axis seat the station serves no HTTP API at all.
class HttpFrontWithSeat : public HttpFront {
protected:
    void SetUp() override
    {
        service.boolSettings["vehicle.six_axis_ar_seat"] = true;
        HttpFront::SetUp();
    }
};

TEST_F(HttpFrontWithSeat, RegistersNoEndpoint)
{
    for (const auto& path : server->routePaths())
        EXPECT_NE(path.rfind("/index/api/pilot/", 0), 0u) << path;
    EXPECT_EQ(call("getConfig").status, 404);
}

} // namespace
