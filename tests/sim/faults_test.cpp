// Each fault the simulator offers does what it says, seen from a real RPC client.

#include <future>

#include <asio/error.hpp>

#include "sim_fixture.h"

namespace pilot_sim::test {
namespace {

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

const std::error_code invalid_argument = asio::error::make_error_code(asio::error::invalid_argument);

using SimFaults = sim_fixture;

TEST_F(SimFaults, PlannedFaultsApplyFromTheStartAndAfterEachHandshake)
{
    simulator_options options = quick_options();
    options.faults.unanswered.insert("getStringConfig");
    options.faults.delayed["getBoolConfig"] = 1500ms;
    options.faults.drop_after_frames = 3;  // frames from each link
    options.faults.vehicle_disconnected = true;
    options.faults.bad_frame_after_handshake = bad_frame::bad_type;
    options.faults.malformed_publication_after_handshake = true;
    options.faults.after_handshake = 50ms;
    start(options);
    auto client = connected_client();
    EXPECT_THROW((client->call<300, std::string>("getStringConfig", std::string("vehicle.pilot_id"))), std::out_of_range);
    EXPECT_THROW((client->call<300, bool>("getBoolConfig", std::string("vehicle.six_axis_ar_seat"))), std::out_of_range);
    EXPECT_EQ(app_type(*client), 0);
    EXPECT_THROW(app_type(*client), std::future_error);

    auto calls = connected_client();
    auto subscriber = subscriber_to({"pilotConnectState"});
    first_error call_link(*calls);
    first_error subscription_link(*subscriber);
    calls->call<3000>("reportRPCSub", true);
    EXPECT_EQ(events.of("pilotConnectState", 1), std::vector<std::string>{"false"});
    EXPECT_EQ(call_link.within(3s), invalid_argument);
    EXPECT_EQ(subscription_link.within(3s), invalid_argument);
    // Two links are open, one subscribed: only that one gets the malformed publication.
    EXPECT_FALSE(events.of("log", 1, "malformed publication to 1 connection").empty());
}

}  // namespace
}  // namespace pilot_sim::test
