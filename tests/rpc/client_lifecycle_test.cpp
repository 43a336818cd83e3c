// Destruction never hangs: with calls pending, with a service that never
// answers, during a reconnection pause, and from the client's own I/O thread.

#include <gtest/gtest.h>

#include <memory>

#include "rpc_test_support.h"

namespace pilot_rpc::test {
namespace {

using ClientLifecycle = service_test;

/// Runs `destroy` on another thread and reports whether it finished in time.
bool finishes_within(std::function<void()> destroy, std::chrono::milliseconds timeout)
{
    auto done = std::async(std::launch::async, std::move(destroy));
    const bool finished = done.wait_for(timeout) == std::future_status::ready;
    if (!finished)
        ADD_FAILURE() << "destruction did not finish; waiting for it anyway";
    done.wait();
    return finished;
}

TEST_F(ClientLifecycle, DestructionWithCallsPendingOnASilentServiceReturnsWithoutCallingBack)
{
    auto client = std::make_unique<rpc_client>();
    client->enable_auto_heartbeat(true, 10ms);
    ASSERT_TRUE(client->connect("127.0.0.1", port, false, 3));
    std::atomic<int> callbacks{0};
    for (int i = 0; i < 20; ++i)
        client->call_with_callback<120000>("never", [&](std::error_code, std::string_view) { ++callbacks; });
    auto future = client->call_future("never");
    ASSERT_TRUE(service.wait_for_frames([](const auto& f) { return f.size() >= 21; }, 3s));

    EXPECT_TRUE(finishes_within([&] { client.reset(); }, 3s));
    EXPECT_EQ(callbacks.load(), 0);
    EXPECT_THROW(future.get(), std::future_error);
}

TEST_F(ClientLifecycle, DestructionDuringTheReconnectionPauseIsNotHeldByIt)
{
    auto client = std::make_unique<rpc_client>();
    client->enable_auto_reconnect();
    ASSERT_TRUE(client->connect("127.0.0.1", port, false, 3));
    service.stop_listening();
    service.close_all_connections();
    ASSERT_TRUE(wait_until([&] { return !client->has_connected(); }));
    EXPECT_TRUE(finishes_within([&] { client.reset(); }, 900ms));
}

TEST_F(ClientLifecycle, DestructionOfANeverConnectedClientReturns)
{
    auto client = std::make_unique<rpc_client>();
    client->call_future("echo", 1);  // its write fails on the closed socket
    EXPECT_TRUE(finishes_within([&] { client.reset(); }, 3s));
}

TEST_F(ClientLifecycle, LastReferenceDroppedInsideItsOwnCallback)
{
    auto holder = std::make_shared<std::shared_ptr<rpc_client>>(std::make_shared<rpc_client>());
    ASSERT_TRUE((*holder)->connect("127.0.0.1", port, false, 3));
    slot<bool> returned;
    (*holder)->call_with_callback<2000>(
        "echo",
        [holder, &returned](std::error_code, std::string_view) {
            holder->reset();  // the client goes away on its own I/O thread
            returned.promise.set_value(true);
        },
        1);
    ASSERT_TRUE(returned.ready_within(3s));
    EXPECT_TRUE(service.wait_for_no_connections(3s));
}

}  // namespace
}  // namespace pilot_rpc::test
