// The simulator as the plug-in meets it: settings, the start handshake,
// subscriptions, telemetry and forwarded requests over real RPC clients.

#include <algorithm>

#include "control_commands.h"
#include "event_payloads.h"
#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

class Simulator : public sim_fixture {
protected:
    void SetUp() override { start(quick_options()); }
};

TEST_F(Simulator, AnswersSettingsOfEachTypeAndRefusesUnknownKeysAndMisshapenQueries)
{
    auto client = connected_client();
    EXPECT_EQ((client->call<3000, int>("getIntConfig", std::string("station.app_type"))), 0);
    EXPECT_EQ((client->call<3000, int>("getIntConfig", std::string("station.forward_port"))), -1);
    EXPECT_EQ((client->call<3000, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), "SIM-UAV-0001");
    EXPECT_EQ((client->call<3000, std::string>("getStringConfig", std::string("mqtts.pawsswd"))), "tepid@brkr");
    EXPECT_FALSE((client->call<3000, bool>("getBoolConfig", std::string("vehicle.six_axis_ar_seat"))));
    const auto refusal = [&](auto&& key) {
        try {
            client->call<3000, int>("getIntConfig", key);
            return std::string("answered");
        } catch (const std::logic_error& e) {
            return std::string(e.what());
        }
    };
    EXPECT_EQ(refusal(std::string("station.no_such_key")), "unknown configuration key: station.no_such_key");
    EXPECT_EQ(refusal(7), "getIntConfig expects one text argument: the dotted key");
}

TEST_F(Simulator, StartHandshakeAnnouncesTheVehicleOnTheSubscriptionLink)
{
    auto calls = connected_client();
    auto subscriber = subscriber_to({"pilotConnectState", "pushUavSn"});

    const auto guid = parse_object(
        calls->call<3000, std::string>("pilotControlBase", std::string("velmora-abcd1234"), std::string("setSelfGuid")));
    EXPECT_EQ(guid->getValue<std::string>("api"), "setSelfGuid");
    EXPECT_EQ(guid->getObject("message")->getValue<int>("code"), 200);
    EXPECT_EQ(sim->station_id(), "velmora-abcd1234");

    calls->call<3000>("reportRPCSub", true);
    ASSERT_TRUE(events.wait_for_count("pushUavSn", 1));
    ASSERT_TRUE(events.wait_for_count("pilotConnectState", 1));
    EXPECT_EQ(events.of("pilotConnectState").front(), "true");
    EXPECT_EQ(events.of("pushUavSn").front(), "SIM-UAV-0001");
    EXPECT_TRUE(logs.wait_for("subscribed to 2 topics"));
}

TEST_F(Simulator, ProducesEachOnRequestEventOnItsTopic)
{
    auto subscriber = subscriber_to(
        {"setTelemFrequency", "vehicleOnlineStatus", "toMicroService", "fireSearchInfo", "uavData2MaterCtl"});

    EXPECT_EQ(sim->request_telemetry_frequency(150), 1u);
    EXPECT_EQ(sim->report_online_status("online"), 1u);
    EXPECT_EQ(sim->send_to_bus("{\"api\":\"x\"}"), 1u);
    EXPECT_EQ(sim->send_master_control_data("{\"x\":1}"), 1u);
    EXPECT_EQ(sim->report_fire_search(), 1u);

    ASSERT_TRUE(events.wait_for_count("fireSearchInfo", 1));
    ASSERT_TRUE(events.wait_for_count("uavData2MaterCtl", 1));
    EXPECT_EQ(events.of("uavData2MaterCtl"), std::vector<std::string>{"{\"x\":1}"});
    EXPECT_EQ(events.of("setTelemFrequency"), std::vector<std::string>{"150"});
    EXPECT_EQ(events.of("vehicleOnlineStatus"), std::vector<std::string>{"online"});
    EXPECT_EQ(events.of("toMicroService"), std::vector<std::string>{"{\"api\":\"x\"}"});
    const auto fire = parse_object(events.of("fireSearchInfo").front());
    EXPECT_EQ(fire->getValue<std::string>("pilot_id"), "SIM-UAV-0001");
    EXPECT_TRUE(fire->has("lat"));
}

TEST_F(Simulator, AnswersAForwardedRequestLikeTheService)
{
    auto client = connected_client();
    std::promise<std::string> answered;
    client->call_with_callback<3000>(
        "telementry",
        [&](std::error_code ec, std::string_view body) {
            answered.set_value(ec ? "error: " + ec.message() : pilot_rpc::req_result(body).value<std::string>());
        },
        std::string(R"({"api":"getUavId","from":"ground-7","target":"station-1","msgId":"42","message":{}})"),
        std::string("getUavId"));
    auto future = answered.get_future();
    ASSERT_EQ(future.wait_for(3s), std::future_status::ready);
    const auto answer = parse_object(future.get());
    EXPECT_EQ(answer->getValue<std::string>("api"), "getUavId");
    EXPECT_EQ(answer->getValue<std::string>("type"), "response");
    EXPECT_EQ(answer->getValue<std::string>("from"), "station-1");
    EXPECT_EQ(answer->getValue<std::string>("target"), "ground-7");
    EXPECT_EQ(answer->getValue<std::string>("msgId"), "42");
    const auto message = answer->getObject("message");
    EXPECT_EQ(message->getValue<int>("code"), 200);
    EXPECT_EQ(message->getObject("result")->getValue<std::string>("uavId"), "SIM-UAV-0001");
}

// Browser tests read this count to prove that nothing a hostile page sent got
// through to the service: it must rise with every forwarded request, whatever
// the answer, and with nothing else.
TEST_F(Simulator, StatusCountsForwardedRequestsAndNothingElse)
{
    auto client = connected_client();
    EXPECT_NE(run_control_command(*sim, "status").find(", 0 forwarded request(s)"), std::string::npos);

    client->call<3000, int>("getIntConfig", std::string("station.app_type"));
    client->call<3000>("reportRPCSub", true);
    EXPECT_EQ(sim->forwarded_requests(), 0u);

    client->call<3000, std::string>("flightControl", std::string(R"({"message":{}})"), std::string("returnHome"));
    client->call<3000, std::string>("telementry", std::string("not json"), std::string("noSuchApi"));
    EXPECT_EQ(sim->forwarded_requests(), 2u);
    const std::string status = run_control_command(*sim, "status");
    EXPECT_EQ(status.rfind("ok: ", 0), 0u) << status;
    EXPECT_NE(status.find(", 2 forwarded request(s)"), std::string::npos) << status;
}

TEST_F(Simulator, ControlCommandsReachSubscribersAndRejectNonsense)
{
    auto subscriber = subscriber_to({"setTelemFrequency"});
    EXPECT_EQ(run_control_command(*sim, "telem-frequency 1100"), "ok: published to 1 subscriber(s)");
    ASSERT_TRUE(events.wait_for_count("setTelemFrequency", 1));
    EXPECT_EQ(events.of("setTelemFrequency").front(), "1100");
    EXPECT_EQ(run_control_command(*sim, "telem-frequency fast"), "error: telem-frequency needs a whole number");
    EXPECT_EQ(run_control_command(*sim, "fly-to-the-moon"), "error: unknown command \"fly-to-the-moon\" (try help)");
    EXPECT_EQ(run_control_command(*sim, "   # a comment"), "");
}

TEST(SimulatorStart, RefusesAnAddressThatIsNotNumeric)
{
    simulator_options options;
    options.bind_address = "localhost";
    options.log = [](const std::string&) {};
    simulator sim(options);
    EXPECT_THROW(sim.start(), std::system_error);
}

class Telemetry : public sim_fixture {};

TEST_F(Telemetry, ArrivesAtTheConfiguredRate)
{
    simulator_options options = quick_options();
    options.telemetry_hz = 20.0;
    start(options);
    auto subscriber = subscriber_to({"pushTelemetry"});
    ASSERT_TRUE(events.wait_for_count("pushTelemetry", 11, 5s));

    // The samples carry the simulator's clock: their mean spacing is the rate,
    // whatever the delivery jitter. Bounds are loose on purpose.
    const auto samples = events.of("pushTelemetry");
    std::vector<double> stamps;
    for (std::size_t i = 0; i < 11; ++i)
        stamps.push_back(parse_object(samples[i])->getValue<double>("timestamp"));
    const double mean_spacing_ms = (stamps.back() - stamps.front()) / 10.0;
    EXPECT_GT(mean_spacing_ms, 25.0);
    EXPECT_LT(mean_spacing_ms, 100.0);
    // Without being asked, no publish stamp.
    EXPECT_FALSE(parse_object(samples[0])->has("publishedUs"));
}

TEST_F(Telemetry, DescribesTheVehicleAndStopsWhenTheVehicleLinkDrops)
{
    simulator_options options = quick_options();
    options.telemetry_hz = 50.0;
    options.heartbeat_interval = 50ms;
    start(options);
    auto subscriber = subscriber_to({"pushTelemetry", "pilotConnectState", "heartBeat"});
    ASSERT_TRUE(events.wait_for_count("pushTelemetry", 1));
    const auto sample = parse_object(events.of("pushTelemetry").front());
    EXPECT_EQ(sample->getValue<std::string>("flightMode"), "onGround");
    EXPECT_EQ(sample->getValue<int>("gpsFix"), 3);
    EXPECT_NEAR(sample->getValue<double>("lat"), options.home.lat, 1e-6);
    EXPECT_NEAR(sample->getValue<double>("battery"), 100.0, 1.0);

    sim->set_vehicle_connected(false);
    ASSERT_TRUE(events.wait_for_count("pilotConnectState", 1));
    EXPECT_EQ(events.of("pilotConnectState").back(), "false");
    // Events of one connection arrive in publication order: after the
    // "false", heartbeats go on and telemetry does not.
    const std::size_t beats = events.of("heartBeat").size();
    ASSERT_TRUE(events.wait_for_count("heartBeat", beats + 3));
    const auto order = events.order();
    const auto down = std::find(order.begin(), order.end(), "pilotConnectState");
    EXPECT_EQ(std::find(down, order.end(), "pushTelemetry"), order.end());
}

}  // namespace
TEST_F(Telemetry, CarriesItsPublishTimeOnlyWhenAsked)
{
    simulator_options options = quick_options();
    options.telemetry_hz = 50.0;
    options.stamp_publish_time = true;
    start(options);
    auto subscriber = subscriber_to({"pushTelemetry"});
    ASSERT_TRUE(events.wait_for_count("pushTelemetry", 2));
    const auto sample = parse_object(events.of("pushTelemetry").front());
    // Stamped just before publishing, after the sample's own millisecond time.
    const auto stamp_us = sample->getValue<Poco::Int64>("publishedUs");
    const auto sample_ms = sample->getValue<Poco::Int64>("timestamp");
    EXPECT_GE(stamp_us / 1000, sample_ms);
    EXPECT_LT(stamp_us / 1000 - sample_ms, 1000);
    // The stamp is the last key, and the text stays one JSON object.
    EXPECT_NE(events.of("pushTelemetry").front().find(",\"publishedUs\":"), std::string::npos);

    EXPECT_EQ(with_publish_stamp("{}", 7), "{\"publishedUs\":7}");
}

}  // namespace pilot_sim::test
