// Requests that end in events: route uploads with their progress and result,
// the flight task that flies the route, and the report requests.

#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

const std::string route_request =
    R"({"api":"%s","from":"ground","target":"station","message":{"waypoints":[)"
    R"({"lat":48.1504,"lon":11.5800,"alt":40},{"lat":48.1504,"lon":11.5806,"alt":40}]}})";

std::string request_for(const std::string& api)
{
    std::string text = route_request;
    text.replace(text.find("%s"), 2, api);
    return text;
}

class RouteUpload : public sim_fixture, public ::testing::WithParamInterface<const char*> {
protected:
    void SetUp() override
    {
        start(quick_options());
        calls = connected_client();
        subscriber = subscriber_to({"updateProgress", "pushRoute", "syncRoute"});
    }

    Poco::JSON::Object::Ptr forward(const std::string& api, const std::string& request)
    {
        return parse_object(calls->call<3000, std::string>("flightControl", request, api));
    }

    std::unique_ptr<pilot_rpc::rpc_client> calls;
    std::unique_ptr<pilot_rpc::rpc_client> subscriber;
};

TEST_P(RouteUpload, ReportsProgressFromZeroToHundredThenTheResultOnItsOwnTopic)
{
    const std::string api = GetParam();
    const std::string other = api == "pushRoute" ? "syncRoute" : "pushRoute";
    const auto answer = forward(api, request_for(api));
    EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), 200);
    EXPECT_EQ(answer->getObject("message")->getObject("result")->getValue<int>("waypointCount"), 2);

    ASSERT_TRUE(events.wait_for_count(api, 1));
    std::vector<int> percents;
    for (const auto& progress : events.of("updateProgress")) {
        const auto report = parse_object(progress);
        EXPECT_EQ(report->getValue<std::string>("operation"), api);
        percents.push_back(report->getValue<int>("progress"));
    }
    EXPECT_EQ(percents, (std::vector<int>{0, 25, 50, 75, 100}));
    const auto result = parse_object(events.of(api).front());
    EXPECT_EQ(result->getValue<int>("code"), 200);
    EXPECT_EQ(result->getObject("result")->getValue<int>("waypointCount"), 2);
    EXPECT_TRUE(events.of(other).empty());
    EXPECT_EQ(sim->vehicle().route_size, 2u);
}

INSTANTIATE_TEST_SUITE_P(BothUploads, RouteUpload, ::testing::Values("pushRoute", "syncRoute"));

class FlightTask : public RouteUpload {};

TEST_F(FlightTask, FliesTheUploadedRouteAndAnswersTheRouteResult)
{
    forward("pushRoute", request_for("pushRoute"));
    ASSERT_TRUE(events.wait_for_count("pushRoute", 1));

    const auto route = forward("getSyncRouteResult", R"({"api":"getSyncRouteResult","message":{}})");
    EXPECT_EQ(route->getObject("message")->getObject("result")->getValue<int>("waypointCount"), 2);

    const auto started = forward("executeFlightTask", R"({"api":"executeFlightTask","message":{}})");
    EXPECT_EQ(started->getObject("message")->getValue<int>("code"), 200);
    EXPECT_EQ(sim->vehicle().mode, flight_mode::taking_off);

    const auto again = forward("executeFlightTask", R"({"api":"executeFlightTask","message":{}})");
    EXPECT_EQ(again->getObject("message")->getValue<int>("code"), 409);
    EXPECT_TRUE(logs.wait_for("flight mode onGround -> takingOff"));
}

class Reports : public sim_fixture, public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(Reports, AnswerAtOnceAndPublishTheirResultEventLater)
{
    const auto [api, result_key] = GetParam();
    start(quick_options());
    auto calls = connected_client();
    auto subscriber = subscriber_to({api});

    const std::string request = std::string(R"({"api":")") + api + R"(","message":{"fileName":"fw-2.1.bin"}})";
    const auto answer = parse_object(calls->call<3000, std::string>("firmwareUpdate", request, std::string(api)));
    EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), 200);
    ASSERT_TRUE(events.wait_for_count(api, 1));
    const auto result = parse_object(events.of(api).front());
    EXPECT_EQ(result->getValue<int>("code"), 200);
    EXPECT_TRUE(result->has(result_key)) << events.of(api).front();
}

INSTANTIATE_TEST_SUITE_P(EachReport, Reports,
                         ::testing::Values(std::make_pair("getRunInfo", "runInfo"),
                                           std::make_pair("getBinInfo", "files"),
                                           std::make_pair("softUpload", "fileName")));

}  // namespace
}  // namespace pilot_sim::test
