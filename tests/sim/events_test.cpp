// What the simulator publishes: handshake, control commands, telemetry, the vehicle link, a replay.

#include <algorithm>
#include <regex>

#include "control_commands.h"
#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

using SimEvents = sim_fixture;

TEST_F(SimEvents, StartHandshakeAndControlCommandsPublishToTheSubscribers)
{
    start(quick_options());
    auto calls = connected_client();
    auto subscriber = subscriber_to({"pilotConnectState", "pushUavSn", "setTelemFrequency"});
    const auto guid = forward(*calls, "pilotControlBase", "velmora-abcd1234", "setSelfGuid");
    EXPECT_EQ(guid->getValue<std::string>("api") + " " + std::to_string(code(guid)), "setSelfGuid 200");
    EXPECT_EQ(sim->station_id(), "velmora-abcd1234");
    calls->call<3000>("reportRPCSub", true);
    EXPECT_EQ(events.of("pilotConnectState", 1), std::vector<std::string>{"true"});
    EXPECT_EQ(events.of("pushUavSn", 1), std::vector<std::string>{"SIM-UAV-0001"});
    EXPECT_FALSE(events.of("log", 1, "subscribed to 3 topics").empty());
    // Events on request: a control command's reaches the subscribers.
    EXPECT_EQ(run_control_command(*sim, "telem-frequency 1100"), "ok: published to 1 subscriber(s)");
    EXPECT_EQ(events.of("setTelemFrequency", 1), std::vector<std::string>{"1100"});
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
    // Asked for, the publish stamp is the last key.
    EXPECT_TRUE(std::regex_search(sample, std::regex(",\"publishedUs\":\\d+\\}$"))) << sample;

    sim->set_vehicle_connected(false);
    EXPECT_EQ(events.of("pilotConnectState", 1), std::vector<std::string>{"false"});
    const auto refused = forward(*calls, "flightControl", "{}", "takeoffAndLand");
    EXPECT_EQ(refused->getObject("message")->getValue<std::string>("msg"), "vehicle not connected");
    EXPECT_EQ(code(refused), 503);
    // One connection's events arrive in publication order.
    const std::size_t beats = events.of("heartBeat").size() + 3;
    ASSERT_GE(events.of("heartBeat", beats).size(), beats);
    const auto all = events.of("*");
    const auto down = std::find(all.begin(), all.end(), "pilotConnectState=false");
    EXPECT_TRUE(std::none_of(down, all.end(), [](const auto& e) { return e.rfind("pushTelemetry=", 0) == 0; }));
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
    ASSERT_GE(events.of("heartBeat", 4).size(), 4u);
    auto played = events.of("*");
    played.resize(5);
    EXPECT_EQ(played, (std::vector<std::string>{"heartBeat=a", "pushTelemetry=b", "heartBeat=c", "heartBeat=a",
                                                "pushTelemetry=b"}));
}

}  // namespace
}  // namespace pilot_sim::test
