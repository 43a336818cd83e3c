// What the simulator publishes: the start handshake, on-request events,
// telemetry, the vehicle link, and a recorded flight played back.

#include <algorithm>

#include "control_commands.h"
#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

using SimEvents = sim_fixture;

TEST_F(SimEvents, StartHandshakeAndEachOnRequestEventReachTheirTopic)
{
    start(quick_options());
    auto calls = connected_client();
    auto subscriber = subscriber_to({"pilotConnectState", "pushUavSn", "setTelemFrequency", "vehicleOnlineStatus",
                                     "toMicroService", "fireSearchInfo", "uavData2MaterCtl"});
    const auto guid = forward(*calls, "pilotControlBase", "velmora-abcd1234", "setSelfGuid");
    EXPECT_EQ(guid->getValue<std::string>("api") + " " + std::to_string(code(guid)), "setSelfGuid 200");
    EXPECT_EQ(sim->station_id(), "velmora-abcd1234");
    calls->call<3000>("reportRPCSub", true);
    EXPECT_EQ(events.of("pilotConnectState", 1), std::vector<std::string>{"true"});
    EXPECT_EQ(events.of("pushUavSn", 1), std::vector<std::string>{"SIM-UAV-0001"});
    EXPECT_TRUE(events.wait_for_log("subscribed to 7 topics"));

    EXPECT_EQ(sim->report_online_status("online"), 1u);
    EXPECT_EQ(sim->send_to_bus("{\"api\":\"x\"}"), 1u);
    EXPECT_EQ(sim->send_master_control_data("{\"x\":1}"), 1u);
    EXPECT_EQ(sim->report_fire_search(), 1u);
    EXPECT_EQ(run_control_command(*sim, "telem-frequency 1100"), "ok: published to 1 subscriber(s)");
    EXPECT_EQ(run_control_command(*sim, "telem-frequency fast"), "error: telem-frequency needs a whole number");
    EXPECT_EQ(run_control_command(*sim, "fly-to-the-moon"), "error: unknown command \"fly-to-the-moon\" (try help)");
    EXPECT_EQ(events.of("setTelemFrequency", 1), std::vector<std::string>{"1100"});
    EXPECT_EQ(events.of("vehicleOnlineStatus"), std::vector<std::string>{"online"});
    EXPECT_EQ(events.of("toMicroService"), std::vector<std::string>{"{\"api\":\"x\"}"});
    EXPECT_EQ(events.of("uavData2MaterCtl"), std::vector<std::string>{"{\"x\":1}"});
    EXPECT_EQ(parse_object(events.of("fireSearchInfo").at(0))->getValue<std::string>("pilot_id"), "SIM-UAV-0001");
}

TEST_F(SimEvents, TelemetryStopsWhileTheVehicleLinkIsDownAndHeartbeatsGoOn)
{
    simulator_options options = quick_options();
    options.telemetry_hz = 50.0;
    options.stamp_publish_time = true;
    options.heartbeat_interval = 50ms;
    start(options);
    auto calls = connected_client();
    auto subscriber = subscriber_to({"pushTelemetry", "pilotConnectState", "heartBeat"});
    const auto sample = events.of("pushTelemetry", 1).at(0);
    EXPECT_EQ(parse_object(sample)->getValue<std::string>("flightMode"), "onGround");
    // Asked for, the publish stamp is the last key, taken after the sample's own time.
    const auto stamp = sample.find(",\"publishedUs\":");
    ASSERT_NE(stamp, std::string::npos) << sample;
    EXPECT_EQ(sample.find_first_of(",}", stamp + 1), sample.size() - 1) << sample;
    EXPECT_GE(parse_object(sample)->getValue<Poco::Int64>("publishedUs") / 1000,
              parse_object(sample)->getValue<Poco::Int64>("timestamp"));

    sim->set_vehicle_connected(false);
    EXPECT_EQ(events.of("pilotConnectState", 1), std::vector<std::string>{"false"});
    const auto refused = forward(*calls, "flightControl", "{}", "takeoffAndLand");
    EXPECT_EQ(refused->getObject("message")->getValue<std::string>("msg"), "vehicle not connected");
    EXPECT_EQ(code(refused), 503);
    // One connection's events arrive in publication order.
    ASSERT_TRUE(events.wait_for_count("heartBeat", events.of("heartBeat").size() + 3));
    const auto all = events.all();
    const auto down = std::find_if(all.begin(), all.end(), [](const auto& e) { return e.first == "pilotConnectState"; });
    EXPECT_TRUE(std::none_of(down, all.end(), [](const auto& e) { return e.first == "pushTelemetry"; }));
}

TEST_F(SimEvents, ARecordingIsPlayedBackAtItsSpeedAndLoopsWithNoHeartbeatOfItsOwn)
{
    auto plan = std::make_shared<replay_plan>();
    // Seconds apart: only the speed factor lets two rounds fit in the wait.
    plan->events = {{0, "heartBeat", "a"}, {2000, "pushTelemetry", "b"}, {4000, "heartBeat", "c"}};
    plan->speed = 200.0;
    plan->loop = true;
    simulator_options options = quick_options();
    options.heartbeat_interval = 20ms;
    options.replay = plan;
    start(options);
    auto subscriber = subscriber_to({"heartBeat", "pushTelemetry"});
    ASSERT_TRUE(events.wait_for_count("heartBeat", 4));
    std::vector<std::string> played;
    for (const auto& [topic, data] : events.all())
        if (topic != "log")
            played.push_back(topic + "=" + data);
    played.resize(5);
    EXPECT_EQ(played, (std::vector<std::string>{"heartBeat=a", "pushTelemetry=b", "heartBeat=c", "heartBeat=a",
                                                "pushTelemetry=b"}));
}

}  // namespace
}  // namespace pilot_sim::test
