// Connecting, reconnecting with subscription replay, and the link's health.

#include <gtest/gtest.h>

#include <atomic>
#include <system_error>
#include <thread>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

#include "rpc_test_support.h"

namespace pilot_rpc::test {
namespace {

/// A loopback port nobody listens on: bound by the kernel, then released.
unsigned short refused_port()
{
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor(io, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    return acceptor.local_endpoint().port();
}

using ClientConnect = service_test;

// Only the first connect reads its host and port, and without reconnection a
// failed one stays down until connect() is called again. The host must be a
// numeric address, IPv4 or IPv6.
TEST_F(ClientConnect, OnlyTheFirstConnectReadsItsNumericHostAndPort)
{
    rpc_client client;
    service.stop_listening();
    EXPECT_FALSE(client.connect("127.0.0.1", port, false, 1));
    service.resume_listening();
    EXPECT_FALSE(service.wait_for_accepted(1, 1500ms));
    EXPECT_TRUE(client.connect("127.0.0.1", refused_port(), false, 3));
    EXPECT_TRUE(client.connect("not an address", 1, false, 3));
    EXPECT_FALSE(service.wait_for_accepted(2, 100ms));

    rpc_client named;
    EXPECT_THROW(named.connect("localhost", port, false, 1), std::system_error);
    rpc_client ipv6;  // the service listens on IPv4 only: refused, but "::1" parses and is tried
    EXPECT_FALSE(ipv6.connect("::1", port, false, 1));
}

// The replay goes in topic order, not in the order of subscription. A health
// report reads the time of the last frame received (answers and publications,
// none before the first, kept across reconnections) and the reconnections.
TEST_F(ClientConnect, ReconnectsAfterARestartReplaysSubscriptionsInTopicOrderAndCountsIt)
{
    rpc_client client;
    client.enable_auto_reconnect();
    ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
    EXPECT_FALSE(client.last_receive_time().has_value());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ((client.call<5000, int>("echo", 1)), 1);
    const auto answered = client.last_receive_time();
    ASSERT_TRUE(answered.has_value());
    EXPECT_GE(*answered, before);
    for (const char* topic : {"heartBeat", "pushTelemetry", "deleteWayPointList", "vehicleOnlineStatus"})
        client.subscribe(topic, [](std::string_view) {});
    ASSERT_TRUE(service.wait_for_subscriber("vehicleOnlineStatus", 3s));
    ASSERT_EQ(service.publish("heartBeat", "{}"), 1u);
    ASSERT_TRUE(wait_until([&] { return client.last_receive_time() > answered; }));

    service.stop_listening();
    service.close_all_connections();
    ASSERT_TRUE(wait_until([&] { return !client.has_connected(); }));
    EXPECT_FALSE(service.wait_for_accepted(2, 1500ms));  // refused meanwhile
    EXPECT_EQ(client.reconnect_count(), 0u);

    service.resume_listening();
    ASSERT_TRUE(service.wait_for_accepted(2, 5s));
    const std::uint64_t second = service.connections().back();
    ASSERT_TRUE(wait_until([&] { return service.subscriptions(second).size() == 4; }));
    EXPECT_EQ(service.subscriptions(second),
              (std::vector<std::string>{"deleteWayPointList", "heartBeat", "pushTelemetry", "vehicleOnlineStatus"}));
    EXPECT_TRUE(wait_until([&] { return client.has_connected() && client.reconnect_count() == 1; }));
    EXPECT_TRUE(client.last_receive_time().has_value());
}

TEST(ClientConnectRefused, ConnectsAskedForDuringRetriesNeverShowALinkThatIsNotThere)
{
    // Every connect() starts an attempt of its own, on the socket the retry
    // loop is already connecting: two attempts then share the socket's one
    // pending error, and the one that reads it second finds none. Taken for a
    // link, that shows as "connected" and then as a lost link (the error
    // callback), which a refused connect never reports.
    const unsigned short port = refused_port();
    rpc_client client;
    client.enable_auto_reconnect();
    std::atomic<int> lost{0};
    client.set_error_callback([&](std::error_code) { lost.fetch_add(1); });
    std::atomic<bool> done{false};
    std::atomic<int> seen_up{0};
    std::thread watcher([&] {
        while (!done.load()) {
            if (client.has_connected())
                seen_up.fetch_add(1);
            std::this_thread::sleep_for(100us);
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + 3s;
    for (int i = 0; i < 2000 && std::chrono::steady_clock::now() < deadline; ++i) {
        client.connect("127.0.0.1", port, false, 0);
        std::this_thread::sleep_for(1ms);
    }
    done.store(true);
    watcher.join();
    EXPECT_EQ(seen_up.load(), 0);
    EXPECT_EQ(lost.load(), 0);
}

}  // namespace
}  // namespace pilot_rpc::test
