// Answers to forwarded requests, decided without a socket: the envelope, the
// API name rules and the behaviours of the APIs that do more than succeed.

#include <gtest/gtest.h>

#include <Poco/JSON/Parser.h>

#include "request_handler.h"
#include "rpc/codec.h"

namespace pilot_sim::test {
namespace {

/// Records what the handler set in motion.
class recorded_effects : public request_effects {
public:
    void station_announced(const std::string& id) override { station = id; }
    void route_upload_started(const std::string& api, std::vector<waypoint> r) override
    {
        upload_api = api;
        route = std::move(r);
    }
    void publish_later(const std::string& topic, std::string payload) override { later[topic] = std::move(payload); }
    bool vehicle_connected() const override { return connected; }
    void set_vehicle_connected(bool c) override { connected = c; }
    void pilot_id_changed(const std::string& id) override { new_pilot_id = id; }
    std::int64_t uptime_seconds() const override { return 12; }
    void log(const std::string& line) override { logged.push_back(line); }

    std::string station, upload_api, new_pilot_id;
    std::vector<waypoint> route;
    std::map<std::string, std::string> later;
    std::vector<std::string> logged;
    bool connected = true;
};

class RequestHandler : public ::testing::Test {
protected:
    Poco::JSON::Object::Ptr ask(const std::string& procedure, const std::vector<std::string>& args)
    {
        return Poco::JSON::Parser().parse(handler.answer(procedure, args)).extract<Poco::JSON::Object::Ptr>();
    }
    static int code(const Poco::JSON::Object::Ptr& answer) { return answer->getObject("message")->getValue<int>("code"); }
    static std::string msg(const Poco::JSON::Object::Ptr& answer)
    {
        return answer->getObject("message")->getValue<std::string>("msg");
    }

    service_settings settings = service_settings::defaults();
    vehicle_model vehicle{waypoint{48.15, 11.58, 0.0}};
    recorded_effects effects;
    request_handler handler{settings, vehicle, effects};
};

TEST_F(RequestHandler, AnswerSwapsAddressesAndKeepsIdsOfTheRequest)
{
    const auto answer = ask("telementry", {R"({"api":"getConfig","from":"ground","target":"station","msgId":7,)"
                                           R"("guid":"{SENDER}","message":{}})",
                                           "getConfig"});
    EXPECT_EQ(answer->getValue<std::string>("api"), "getConfig");
    EXPECT_EQ(answer->getValue<std::string>("type"), "response");
    EXPECT_EQ(answer->getValue<std::string>("from"), "station");
    EXPECT_EQ(answer->getValue<std::string>("target"), "ground");
    EXPECT_EQ(answer->getValue<int>("msgId"), 7);
    EXPECT_EQ(answer->getValue<std::string>("guid"), "{SENDER}");
    EXPECT_EQ(code(answer), 200);
    EXPECT_EQ(msg(answer), "success");
    const auto config = answer->getObject("message")->getObject("result");
    EXPECT_EQ(config->getObject("vehicle")->getValue<std::string>("pilot_id"), "SIM-UAV-0001");
}

TEST_F(RequestHandler, TakesTheApiNameFromTheRequestWhereNoArgumentGivesIt)
{
    // Bus: "interface" wins over "api".
    EXPECT_EQ(ask("microService", {R"({"api":"nonsense","interface":"getUavId","data":{}})"})
                  ->getValue<std::string>("api"),
              "getUavId");
    // Cloud: the second argument is a routing word, not the API.
    const auto cloud = ask("pilotControlBase", {R"({"api":"getStationInfo","message":{}})", "publishToGround"});
    EXPECT_EQ(cloud->getValue<std::string>("api"), "getStationInfo");
    EXPECT_EQ(code(cloud), 200);
    EXPECT_EQ(code(ask("djiControl", {R"({"api":"getUavId","factory":true})"})), 200);
}

TEST_F(RequestHandler, RefusesUnknownNamelessAndUnreadableRequestsWithAReason)
{
    const auto unknown = ask("flightControl", {R"({"api":"doABarrelRoll"})", "doABarrelRoll"});
    EXPECT_EQ(code(unknown), 404);
    EXPECT_EQ(msg(unknown), "unknown api: doABarrelRoll");
    EXPECT_EQ(code(ask("microService", {R"({"message":{}})"})), 400);
    const auto garbage = ask("flightControl", {"{not json", "pushRoute"});
    EXPECT_EQ(code(garbage), 400);
    EXPECT_EQ(garbage->getValue<std::string>("api"), "pushRoute");
    EXPECT_EQ(code(ask("flightControl", {"[1,2]", "pushRoute"})), 400);
    EXPECT_EQ(effects.logged.size(), 4u);
}

TEST_F(RequestHandler, RefusesArgumentsThatAreNotTexts)
{
    const msgpack::sbuffer packed = pilot_rpc::pack_args(42, std::string("pushRoute"));
    const msgpack::object_handle args = pilot_rpc::unpack_object(std::string_view(packed.data(), packed.size()));
    EXPECT_THROW(handler.answer("flightControl", args.get()), std::invalid_argument);
    EXPECT_THROW(handler.answer("flightControl", std::vector<std::string>{}), std::invalid_argument);
}

TEST_F(RequestHandler, SetUavIdChangesTheSerialNumberEverywhere)
{
    EXPECT_EQ(code(ask("telementry", {R"({"message":{"uavId":"UAV-NEW"}})", "setUavId"})), 200);
    EXPECT_EQ(effects.new_pilot_id, "UAV-NEW");
    EXPECT_EQ(settings.pilot_id(), "UAV-NEW");
    EXPECT_EQ(code(ask("telementry", {R"({"message":{}})", "setUavId"})), 400);
}

TEST_F(RequestHandler, RouteUploadAcceptsEitherWaypointSpellingAndHandsTheRouteOn)
{
    const auto answer = ask("flightControl", {R"({"message":{"data":{"wayPointList":[)"
                                              R"({"latitude":48.2,"lng":11.6,"height":55},{"lat":48.3,"lon":11.7}]}}})",
                                              "syncRoute"});
    EXPECT_EQ(code(answer), 200);
    EXPECT_EQ(effects.upload_api, "syncRoute");
    ASSERT_EQ(effects.route.size(), 2u);
    EXPECT_DOUBLE_EQ(effects.route[0].lat, 48.2);
    EXPECT_DOUBLE_EQ(effects.route[0].lon, 11.6);
    EXPECT_DOUBLE_EQ(effects.route[0].alt, 55.0);
    EXPECT_DOUBLE_EQ(effects.route[1].alt, vehicle_model::takeoff_altitude);
}

TEST_F(RequestHandler, RouteUploadRefusesBrokenWaypoints)
{
    EXPECT_EQ(msg(ask("flightControl", {R"({"message":{"waypoints":[]}})", "pushRoute"})), "the route has no waypoints");
    EXPECT_EQ(msg(ask("flightControl", {R"({"message":{"waypoints":[{"lat":"north","lon":1}]}})", "pushRoute"})),
              "waypoint 0 has no numeric lat and lon");
    EXPECT_EQ(msg(ask("flightControl", {R"({"message":{"waypoints":[{"lat":1,"lon":2},{"lat":95,"lon":2}]}})",
                                        "pushRoute"})),
              "waypoint 1 lies outside the globe");
    EXPECT_TRUE(effects.upload_api.empty());
}

TEST_F(RequestHandler, VehicleCommandsChangeTheFlightModeOrSayWhyNot)
{
    EXPECT_EQ(msg(ask("flightControl", {"{}", "executeFlightTask"})), "no route has been uploaded");
    EXPECT_EQ(code(ask("flightControl", {"{}", "returnHome"})), 409);
    EXPECT_EQ(code(ask("flightControl", {"{}", "takeoffAndLand"})), 200);
    EXPECT_EQ(vehicle.state().mode, flight_mode::taking_off);
    EXPECT_EQ(code(ask("flightControl", {R"({"message":{"action":"land"}})", "takeoffAndLand"})), 200);
    EXPECT_EQ(vehicle.state().mode, flight_mode::landing);
    EXPECT_EQ(code(ask("flightControl", {R"({"message":{"action":"somersault"}})", "takeoffAndLand"})), 400);
}

TEST_F(RequestHandler, VehicleCommandsWaitForTheVehicleLink)
{
    effects.connected = false;
    EXPECT_EQ(code(ask("flightControl", {"{}", "takeoffAndLand"})), 503);
    EXPECT_EQ(vehicle.state().mode, flight_mode::on_ground);
    EXPECT_EQ(code(ask("telementry", {"{}", "getUavId"})), 200);
    EXPECT_EQ(code(ask("telementry", {"{}", "pilotConnect"})), 200);
    EXPECT_TRUE(effects.connected);
}

}  // namespace
}  // namespace pilot_sim::test
