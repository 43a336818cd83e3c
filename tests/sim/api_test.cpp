// The simulator answers every call shape the plug-in makes, over a real RPC client.

#include "control_commands.h"
#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

using SimApis = sim_fixture;

TEST_F(SimApis, EachCallShapeIsAnsweredAndEachForwardedOneCountedWhateverItsAnswer)
{
    start(quick_options());
    auto client = connected_client();
    EXPECT_EQ((client->call<3000, int>("getIntConfig", std::string("station.forward_port"))), -1);
    EXPECT_FALSE((client->call<3000, bool>("getBoolConfig", std::string("vehicle.six_axis_ar_seat"))));

    const auto answer = forward(*client, "telementry",
                                R"({"api":"getUavId","from":"ground-7","target":"station-1","msgId":42,"guid":"{G}"})",
                                "getUavId");
    EXPECT_EQ(answer->getValue<std::string>("from") + ">" + answer->getValue<std::string>("target"), "station-1>ground-7");
    EXPECT_EQ(answer->getValue<std::string>("msgId") + answer->getValue<std::string>("guid"), "42{G}");
    EXPECT_EQ(answer->getObject("message")->getObject("result")->getValue<std::string>("uavId"), "SIM-UAV-0001");

    struct row {
        const char *procedure, *request, *api;  // api nullptr: the request is the only argument
        const char* answered_api;
        int code;
        std::string msg;
    };
    const row rows[] = {
        {"microService", R"({"api":"nonsense","interface":"getUavId","data":{}})", nullptr, "getUavId", 200, "success"},
        {"pilotControlBase", R"({"api":"getStationInfo"})", "publishToGround", "getStationInfo", 200, "success"},
        {"flightControl", "{}", "doABarrelRoll", "doABarrelRoll", 404, "unknown api: doABarrelRoll"},
        {"microService", R"({"message":{}})", nullptr, "", 400, "the request names no api"},
        {"flightControl", R"({"message":{"waypoints":[{"lat":1,"lon":2},{"lat":95,"lon":2}]}})", "pushRoute",
         "pushRoute", 400, "waypoint 1 lies outside the globe"},
        {"flightControl", "{}", "executeFlightTask", "executeFlightTask", 409, "no route has been uploaded"},
        {"telementry", R"({"message":{"uavId":"UAV-NEW"}})", "setUavId", "setUavId", 200, "success"},
    };
    for (const row& r : rows) {
        const std::string request = r.request;
        const auto reply = parse_object(r.api ? client->call<3000, std::string>(r.procedure, request, std::string(r.api))
                                              : client->call<3000, std::string>(r.procedure, request));
        EXPECT_EQ(reply->getValue<std::string>("api"), r.answered_api) << request;
        EXPECT_EQ(code(reply), r.code) << request;
        EXPECT_EQ(reply->getObject("message")->getValue<std::string>("msg"), r.msg) << request;
    }
    EXPECT_EQ((client->call<3000, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), "UAV-NEW");
    client->call<3000>("reportRPCSub", true);

    // Browser tests read this count to prove nothing a hostile page sent got
    // through: every forwarded request, whatever its answer, and nothing else.
    const std::size_t forwarded = std::size(rows) + 1;
    EXPECT_EQ(sim->forwarded_requests(), forwarded);
    const std::string status = run_control_command(*sim, "status");
    EXPECT_NE(status.find(", " + std::to_string(forwarded) + " forwarded request(s)"), std::string::npos) << status;
}

TEST_F(SimApis, UploadsAndReportsPublishTheirResultOnTheirOwnTopic)
{
    start(quick_options());
    auto client = connected_client();
    auto subscriber = subscriber_to({"updateProgress", "pushRoute", "syncRoute", "softUpload"});
    EXPECT_EQ(code(forward(*client, "flightControl",
                           R"({"message":{"data":{"wayPointList":[{"latitude":48.2,"lng":11.6},{"lat":48.3,"lon":11.7}]}}})",
                           "syncRoute")),
              200);
    ASSERT_EQ(events.of("syncRoute", 1).size(), 1u);
    std::vector<std::string> progress;
    for (const auto& report : events.of("updateProgress"))
        progress.push_back(parse_object(report)->getValue<std::string>("operation") + " " +
                           std::to_string(parse_object(report)->getValue<int>("progress")));
    EXPECT_EQ(progress, (std::vector<std::string>{"syncRoute 0", "syncRoute 25", "syncRoute 50", "syncRoute 75",
                                                  "syncRoute 100"}));
    EXPECT_EQ(parse_object(events.of("syncRoute").front())->getObject("result")->getValue<int>("waypointCount"), 2);

    // A report answers at once and publishes its result a moment later.
    EXPECT_EQ(code(forward(*client, "firmwareUpdate", R"({"message":{"fileName":"fw-2.1.bin"}})", "softUpload")), 200);
    const auto result = events.of("softUpload", 1);
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(parse_object(result.front())->getValue<std::string>("fileName"), "fw-2.1.bin");
}

}  // namespace
}  // namespace pilot_sim::test
