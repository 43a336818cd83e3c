#include <system_error>

#include "FrontsFixture.h"
#include "host/HttpTestClient.h"
#include "support/LogCapture.h"

namespace {

using vlm::test::LogCapture;

class HttpFront : public vlm::test::FrontsFixture {
protected:
    vlm::test::HttpAnswer call(const std::string& api, const std::string& body = R"({"type":"request","from":"app"})")
    {
        return vlm::test::post("/index/api/pilot/" + api, body).sendTo(server->port());
    }
    // The inner message of the error answer to a request with msgId "e".
    Poco::JSON::Object::Ptr errorTo(const std::string& api, int code)
    {
        const auto answer = call(api, R"({"type":"request","from":"app","msgId":"e"})");
        EXPECT_EQ(answer.json()->getValue<std::string>("msgId"), "e") << answer.body;
        auto inner = answer.json()->getObject("message");
        EXPECT_EQ(inner->getValue<int>("code"), code) << answer.body;
        return inner;
    }
};

// Callers have always been paced by a 50 ms pause after each forwarded answer.
TEST_F(HttpFront, ForwardsARequestAndAnswersWithTheServiceTextAfterThePause)
{
    const auto started = std::chrono::steady_clock::now();
    const auto answer = call("getConfig", R"({"type":"request","from":"app","msgId":"9"})");
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(50));
    const auto forwarded = service.callsOf("telementry");
    ASSERT_EQ(forwarded.size(), 1u);
    EXPECT_EQ(forwarded[0].args[1], "getConfig");
    EXPECT_EQ(answer.body, vlm::test::ScriptedService::standardAnswer(forwarded[0].args));
}

TEST_F(HttpFront, RefusalsAndServiceFailuresAreErrorAnswers)
{
    EXPECT_EQ(call("pushRoute").body, R"({"code":4001,"id":"UAV-1","msg":"The vehicle not connected","type":"response"})");
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

} // namespace
