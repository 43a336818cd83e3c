#include <system_error>
#include <thread>

#include "FrontsFixture.h"
#include "host/HttpTestClient.h"
#include "rpc/function_id.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::HttpAnswer;
using vlm::test::LogCapture;
using vlm::test::post;
using vlm::test::ScriptedService;

class HttpFront : public vlm::test::FrontsFixture {
protected:
    HttpAnswer call(const std::string& api, const std::string& body = R"({"type":"request","from":"app"})")
    {
        return post("/index/api/pilot/" + api, body).sendTo(server->port());
    }
};

TEST_F(HttpFront, ForwardsARequestAndAnswersWithTheServiceText)
{
    const auto answer = call("getConfig", R"({"type":"request","from":"app","target":"station-1","msgId":"9"})");
    EXPECT_EQ(answer.status, 200);
    auto forwarded = service.callsOf("telementry");
    ASSERT_EQ(forwarded.size(), 1u);
    EXPECT_EQ(forwarded[0].args[1], "getConfig");
    EXPECT_EQ(answer.body, ScriptedService::standardAnswer(forwarded[0].args));
}

TEST_F(HttpFront, VehicleCheckRefusesFlightCommandsUntilTheVehicleIsThere)
{
    auto answer = call("pushRoute");
    EXPECT_EQ(answer.body, R"({"code":4001,"id":"UAV-1","msg":"The vehicle not connected","type":"response"})");
    EXPECT_TRUE(service.callsOf("flightControl").empty());

    vehicleConnected(true);
    answer = call("pushRoute");
    ASSERT_EQ(service.callsOf("flightControl").size(), 1u);
    EXPECT_EQ(answer.json()->getValue<std::string>("api"), "pushRoute");
}

TEST_F(HttpFront, OnlyApisBelow307AreServed)
{
    EXPECT_EQ(call("getPhotoCount").status, 404);
    EXPECT_EQ(call("getDatDirPath").status, 404);
    EXPECT_EQ(call("PushRoute").status, 404);
}

TEST_F(HttpFront, AnApiWithoutServiceCategoryIsRefusedAtOnce)
{
    vehicleConnected(true);
    const auto answer = call("hangerImageTransSwitch", R"({"type":"request","msgId":"5"})");
    auto inner = answer.json()->getObject("message");
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
    EXPECT_EQ(inner->getValue<std::string>("msg"),
              "Pilot response http error msg: api has no service category: hangerImageTransSwitch");
    EXPECT_EQ(answer.json()->getValue<std::string>("msgId"), "5");
}

TEST_F(HttpFront, AMissingTypeIsLoggedAndTheRequestStillServed)
{
    LogCapture log;
    const auto answer = call("getConfig", "{}");
    EXPECT_EQ(log.errors("param type error"), 1);
    EXPECT_EQ(service.callsOf("telementry").size(), 1u);
    EXPECT_EQ(answer.status, 200);
}

TEST_F(HttpFront, AServiceThatIsDownGivesAnErrorAnswerNotAHang)
{
    service.service.stop();
    const auto answer = call("getConfig", R"({"type":"request","msgId":"1"})");
    ASSERT_TRUE(answer.json()) << answer.status << " [" << answer.body << "]";
    auto inner = answer.json()->getObject("message");
    ASSERT_TRUE(inner);
    // The link's own socket error (refused, reset, not connected), with the
    // system's text for it: not a gateway code, not a service answer.
    const int code = inner->getValue<int>("code");
    EXPECT_GT(code, 0);
    EXPECT_LT(code, 4001);
    EXPECT_EQ(inner->getValue<std::string>("msg"), std::system_category().message(code));
    EXPECT_EQ(answer.json()->getValue<std::string>("msgId"), "1");
}

// Answers that never come are bounded by the plug-in's stop: the caller is
// released with an error instead of waiting ten minutes.
TEST_F(HttpFront, AStopReleasesACallerStillWaitingForItsAnswer)
{
    service.service.withhold_answers("telementry");
    // A withheld call never reaches the recording handler: watch for its frame.
    std::thread stopper([this] {
        const uint32_t forwarded = pilot_rpc::function_id("telementry");
        service.service.wait_for_frames(
            [forwarded](const std::vector<pilot_rpc::received_frame>& frames) {
                for (const auto& f : frames)
                    if (f.frame_type == 0 && f.func_id == forwarded)
                        return true;
                return false;
            },
            std::chrono::seconds(5));
        plugin->stop();
    });
    const auto answer = call("getConfig");
    stopper.join();
    auto inner = answer.json()->getObject("message");
    ASSERT_TRUE(inner) << answer.body;
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
}

TEST_F(HttpFront, AServiceRefusalBecomesAnErrorAnswer)
{
    service.respondWith([](const std::string&, const std::vector<std::string>&) -> std::string {
        throw std::runtime_error("config store locked");
    });
    LogCapture log;
    const auto answer = call("getConfig", R"({"type":"request","from":"app","msgId":"41"})");
    ASSERT_TRUE(answer.json()) << answer.body;
    EXPECT_EQ(answer.json()->getValue<std::string>("msgId"), "41");
    auto inner = answer.json()->getObject("message");
    ASSERT_TRUE(inner) << answer.body;
    EXPECT_EQ(inner->getValue<int>("code"), 4002);
    EXPECT_EQ(inner->getValue<std::string>("msg"), "config store locked");
    EXPECT_EQ(log.errors(" response http msg: config store locked, error code: 4002"), 1);
}

// Results the service pushed earlier as events are given once, without a
// call; the next request for them goes to the service.
TEST_F(HttpFront, CachedResultsAreGivenOnceThenAskedFor)
{
    vehicleConnected(true);
    using Impl = vlm::PilotControlPImpl;
    struct Case {
        const char* event;
        const char* api;
        std::string Impl::*slot;
        const char* category;
    };
    const Case cases[] = {{"syncRoute", "getSyncRouteResult", &Impl::lastRoute, "flightControl"},
                          {"getRunInfo", "getRunInfoResult", &Impl::lastRunInfo, "firmwareUpdate"},
                          {"getBinInfo", "getBinInfoResult", &Impl::lastBinInfo, "firmwareUpdate"},
                          {"softUpload", "getSoftUploadResult", &Impl::lastSoftUpload, "firmwareUpdate"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.api);
        const std::string cached = std::string(R"({"cached":")") + c.api + R"("})";
        service.service.publish(c.event, cached);
        ASSERT_TRUE(vlm::test::eventually([&] {
            std::lock_guard<std::mutex> lock(state().cacheMutex);
            return state().*c.slot == cached;
        }));
        LogCapture log;
        const size_t before = service.callsOf(c.category).size();
        EXPECT_EQ(call(c.api).body, cached);
        EXPECT_EQ(service.callsOf(c.category).size(), before);
        EXPECT_EQ(call(c.api).json()->getValue<std::string>("api"), c.api);
        const auto forwarded = service.callsOf(c.category);
        ASSERT_EQ(forwarded.size(), before + 1);
        EXPECT_EQ(forwarded.back().args[1], c.api);
        if (c.slot == &Impl::lastRoute)
            EXPECT_EQ(log.infos("return route operator result: " + cached), 1);
    }
}

// A new route operation makes any earlier result and progress meaningless.
TEST_F(HttpFront, ARouteOperationClearsTheRouteResultAndProgress)
{
    vehicleConnected(true);
    for (const char* api : {"pushRoute", "syncRoute", "deleteWayPointList"}) {
        {
            std::lock_guard<std::mutex> lock(state().cacheMutex);
            state().lastRoute = "old route";
            state().lastProgress = "old progress";
        }
        EXPECT_EQ(call(api).json()->getValue<std::string>("api"), api);
        std::lock_guard<std::mutex> lock(state().cacheMutex);
        EXPECT_EQ(state().lastRoute, "") << api;
        EXPECT_EQ(state().lastProgress, "") << api;
    }
    EXPECT_EQ(service.callsOf("flightControl").size(), 3u);
}

// Callers have always been paced by a pause after each forwarded answer.
TEST_F(HttpFront, AForwardedAnswerIsHeldForFiftyMilliseconds)
{
    const auto started = std::chrono::steady_clock::now();
    const auto answer = call("getConfig");
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(answer.status, 200);
    EXPECT_GE(took, std::chrono::milliseconds(50));
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
    EXPECT_TRUE(service.callsOf("telementry").empty());
}

} // namespace
