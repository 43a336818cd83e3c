// Each fault the simulator offers, seen from a real RPC client.

#include <future>

#include <asio/error.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

/// The first connection error a client reports.
struct first_error {
    std::promise<std::error_code> promise;
    std::future<std::error_code> future = promise.get_future();
    std::once_flag once;

    void watch(pilot_rpc::rpc_client& client)
    {
        client.set_error_callback([this](std::error_code ec) { std::call_once(once, [&] { promise.set_value(ec); }); });
    }
    std::error_code within(std::chrono::milliseconds timeout)
    {
        return future.wait_for(timeout) == std::future_status::ready ? future.get() : std::error_code();
    }
};

/// A call every link answers at once unless a fault intervenes.
int app_type(pilot_rpc::rpc_client& client)
{
    return client.call<3000, int>("getIntConfig", std::string("station.app_type"));
}

class Faults : public sim_fixture {
protected:
    void SetUp() override { start(quick_options()); }
};

// A port taken while refusing is tried again until it is free.
TEST_F(Faults, ConnectionsAreRefusedForAWhileThenAcceptedOnTheSamePort)
{
    start_on_restartable_port(quick_options());
    sim->refuse_connections_for(300ms);
    {
        asio::io_context io;
        const asio::ip::tcp::endpoint address(asio::ip::make_address("127.0.0.1"), port);
        asio::ip::tcp::socket refused(io);
        std::error_code ec;
        refused.connect(address, ec);
        EXPECT_EQ(ec, asio::error::connection_refused);
        asio::ip::tcp::acceptor squatter(io, address);
        ASSERT_TRUE(logs.wait_for("fault: cannot listen again on port " + std::to_string(port), 5s));
    }
    ASSERT_TRUE(logs.wait_for("listening again on port " + std::to_string(port), 5s));
    pilot_rpc::rpc_client accepted;
    EXPECT_TRUE(accepted.connect("127.0.0.1", port, false, 3));
}

class BadFrames : public sim_fixture, public ::testing::WithParamInterface<std::pair<bad_frame, std::error_code>> {};

TEST_P(BadFrames, MakeTheClientDropTheLinkWithTheMatchingError)
{
    const auto [kind, expected] = GetParam();
    start(quick_options());
    auto client = connected_client();
    first_error error;
    error.watch(*client);
    EXPECT_EQ(app_type(*client), 0);
    EXPECT_EQ(sim->send_bad_frame(kind), 1u);
    EXPECT_EQ(error.within(3s), expected);
}

INSTANTIATE_TEST_SUITE_P(EachKind, BadFrames,
                         ::testing::Values(std::make_pair(bad_frame::zero_length, asio::error::make_error_code(asio::error::message_size)),
                                           std::make_pair(bad_frame::oversize, asio::error::make_error_code(asio::error::message_size)),
                                           std::make_pair(bad_frame::bad_type, asio::error::make_error_code(asio::error::invalid_argument))));

TEST_F(Faults, MalformedPublicationReachesOnlySubscribersAndBreaksTheirLink)
{
    auto bystander = connected_client();
    auto subscriber = subscriber_to({"pushTelemetry"});
    first_error error;
    error.watch(*subscriber);
    EXPECT_EQ(sim->send_malformed_publication(), 1u);
    EXPECT_EQ(error.within(3s), asio::error::make_error_code(asio::error::invalid_argument));
    EXPECT_EQ(app_type(*bystander), 0);
}

TEST_F(Faults, DisconnectedVehicleIsReportedAndRefusesVehicleCommands)
{
    auto calls = connected_client();
    auto subscriber = subscriber_to({"pilotConnectState"});
    sim->set_vehicle_connected(false);
    ASSERT_TRUE(events.wait_for_count("pilotConnectState", 1));
    EXPECT_EQ(events.of("pilotConnectState").front(), "false");

    const auto answer = parse_object(calls->call<3000, std::string>(
        "flightControl", std::string(R"({"api":"takeoffAndLand","message":{}})"), std::string("takeoffAndLand")));
    EXPECT_EQ(answer->getObject("message")->getValue<int>("code"), 503);
    EXPECT_EQ(answer->getObject("message")->getValue<std::string>("msg"), "vehicle not connected");
}

class FaultPlan : public sim_fixture {};

TEST_F(FaultPlan, VehicleDisconnectedFromTheStartIsAnnouncedAtTheHandshake)
{
    simulator_options options = quick_options();
    options.faults.vehicle_disconnected = true;
    start(options);
    auto calls = connected_client();
    auto subscriber = subscriber_to({"pilotConnectState"});
    calls->call<3000>("reportRPCSub", true);
    ASSERT_TRUE(events.wait_for_count("pilotConnectState", 1));
    EXPECT_EQ(events.of("pilotConnectState").front(), "false");
}

TEST_F(FaultPlan, BadFrameAndMalformedPublicationFollowEachHandshake)
{
    simulator_options options = quick_options();
    options.faults.bad_frame_after_handshake = bad_frame::bad_type;
    options.faults.malformed_publication_after_handshake = true;
    options.faults.after_handshake = 50ms;
    start(options);
    auto calls = connected_client();
    auto subscriber = subscriber_to({"heartBeat"});
    first_error call_link;
    call_link.watch(*calls);
    first_error subscription_link;
    subscription_link.watch(*subscriber);
    calls->call<3000>("reportRPCSub", true);
    EXPECT_EQ(call_link.within(3s), asio::error::make_error_code(asio::error::invalid_argument));
    EXPECT_EQ(subscription_link.within(3s), asio::error::make_error_code(asio::error::invalid_argument));
    EXPECT_TRUE(logs.wait_for("malformed publication to 1 connection"));
}

TEST_F(FaultPlan, PlannedProcedureFaultsApplyFromTheStart)
{
    simulator_options options = quick_options();
    options.faults.unanswered.insert("getStringConfig");
    options.faults.delayed["getBoolConfig"] = 1500ms;
    options.faults.drop_after_frames = 3;
    start(options);
    auto client = connected_client();
    EXPECT_THROW((client->call<300, std::string>("getStringConfig", std::string("vehicle.pilot_id"))),
                 std::out_of_range);
    EXPECT_THROW((client->call<300, bool>("getBoolConfig", std::string("vehicle.six_axis_ar_seat"))),
                 std::out_of_range);
    EXPECT_EQ(app_type(*client), 0);
    EXPECT_THROW(app_type(*client), std::future_error);
}

}  // namespace
}  // namespace pilot_sim::test
