// Each fault the simulator offers does what it says, seen from a real RPC client.

#include <future>

#include <asio/error.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include "sim_fixture.h"
#include "support/RestartablePort.h"

namespace pilot_sim::test {
namespace {

/// The first connection error a client reports, or none within the wait.
struct first_error {
    explicit first_error(pilot_rpc::rpc_client& client)
    {
        client.set_error_callback([this](std::error_code ec) { std::call_once(once, [&] { promise.set_value(ec); }); });
    }
    std::error_code within(std::chrono::milliseconds timeout)
    {
        return future.wait_for(timeout) == std::future_status::ready ? future.get() : std::error_code();
    }
    std::promise<std::error_code> promise;
    std::future<std::error_code> future = promise.get_future();
    std::once_flag once;
};

int app_type(pilot_rpc::rpc_client& client)
{
    return client.call<3000, int>("getIntConfig", std::string("station.app_type"));
}

const std::error_code message_size = asio::error::make_error_code(asio::error::message_size);
const std::error_code invalid_argument = asio::error::make_error_code(asio::error::invalid_argument);

using SimFaults = sim_fixture;

TEST_F(SimFaults, ConnectionsAreRefusedForAWhileThenAcceptedOnTheSamePort)
{
    // A port no other socket is handed while the simulator lets it go; another
    // test may pick the same one, hence a few tries.
    for (int attempt = 1; !sim; ++attempt) {
        simulator_options options = quick_options();
        options.port = static_cast<unsigned short>(vlm::test::pickRestartablePort());
        try {
            start(std::move(options));
        } catch (const std::system_error&) {
            sim.reset();
            ASSERT_LT(attempt, 3);
        }
    }
    sim->refuse_connections_for(300ms);
    asio::io_context io;
    asio::ip::tcp::socket refused(io);
    std::error_code ec;
    refused.connect({asio::ip::make_address("127.0.0.1"), port}, ec);
    EXPECT_EQ(ec, asio::error::connection_refused);
    ASSERT_TRUE(events.wait_for_log("listening again on port " + std::to_string(port), 5s));
    pilot_rpc::rpc_client accepted;
    EXPECT_TRUE(accepted.connect("127.0.0.1", port, false, 3));
}

TEST_F(SimFaults, BadFramesAndMalformedPublicationsBreakTheLinksTheyReach)
{
    start(quick_options());
    for (const auto& [kind, expected] : {std::pair{bad_frame::zero_length, message_size},
                                         {bad_frame::oversize, message_size}, {bad_frame::bad_type, invalid_argument}}) {
        auto client = connected_client();
        first_error error(*client);
        EXPECT_EQ(app_type(*client), 0);
        EXPECT_EQ(sim->send_bad_frame(kind), 1u);
        EXPECT_EQ(error.within(3s), expected) << bad_frame_name(kind);
    }
    auto bystander = connected_client();
    auto subscriber = subscriber_to({"pushTelemetry"});
    first_error error(*subscriber);
    EXPECT_EQ(sim->send_malformed_publication(), 1u);
    EXPECT_EQ(error.within(3s), invalid_argument);
    EXPECT_EQ(app_type(*bystander), 0);
}

TEST_F(SimFaults, PlannedProcedureFaultsApplyFromTheStart)
{
    simulator_options options = quick_options();
    options.faults.unanswered.insert("getStringConfig");
    options.faults.delayed["getBoolConfig"] = 1500ms;
    options.faults.drop_after_frames = 3;
    start(options);
    auto client = connected_client();
    EXPECT_THROW((client->call<300, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), std::out_of_range);
    EXPECT_THROW((client->call<300, bool>("getBoolConfig", std::string("vehicle.six_axis_ar_seat"))), std::out_of_range);
    EXPECT_EQ(app_type(*client), 0);
    EXPECT_THROW(app_type(*client), std::future_error);
}

TEST_F(SimFaults, PlannedHandshakeFaultsFollowEachHandshake)
{
    simulator_options options = quick_options();
    options.faults.vehicle_disconnected = true;
    options.faults.bad_frame_after_handshake = bad_frame::bad_type;
    options.faults.malformed_publication_after_handshake = true;
    options.faults.after_handshake = 50ms;
    start(options);
    auto calls = connected_client();
    auto subscriber = subscriber_to({"pilotConnectState"});
    first_error call_link(*calls);
    first_error subscription_link(*subscriber);
    calls->call<3000>("reportRPCSub", true);
    EXPECT_EQ(events.of("pilotConnectState", 1), std::vector<std::string>{"false"});
    EXPECT_EQ(call_link.within(3s), invalid_argument);
    EXPECT_EQ(subscription_link.within(3s), invalid_argument);
    EXPECT_TRUE(events.wait_for_log("malformed publication to 1 connection"));
}

}  // namespace
}  // namespace pilot_sim::test
