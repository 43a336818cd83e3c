// Connecting, reconnecting with subscription replay, and the heartbeat.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <system_error>

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

// The topics the plug-in subscribes to, in its registration order.
const std::vector<std::string> plugin_topics{
    "heartBeat", "pushTelemetry", "updateProgress", "getVersionInfo", "getRunInfo", "getBinInfo", "softUpload",
    "softUpdateStatus", "getUpdateProgress", "updateMagneticCompassCali", "uploadRouteMission", "pilotConnect",
    "pilotConnectState", "syncRoute", "pushRoute", "deleteWayPointList", "setTelemFrequency", "uploadGuid",
    "saveRouteMission", "requestBomb", "requestManCtrl", "uavData2MaterCtl", "fireSearchInfo", "pushUavSn",
    "fixedPointFollow", "responseToCloud", "toMicroService", "vehicleOnlineStatus"};

using ClientConnect = service_test;

// Only the first connect reads its host and port; a connected client answers
// true to any; the host must be a numeric address (IPv4 or IPv6).
TEST_F(ClientConnect, OnlyTheFirstConnectReadsItsNumericHostAndPort)
{
    rpc_client connected;
    ASSERT_TRUE(connected.connect("127.0.0.1", port, false, 3));
    EXPECT_TRUE(connected.connect("not an address", 1, false, 3));
    ASSERT_TRUE(service.wait_for_accepted(1, 3s));
    EXPECT_FALSE(service.wait_for_accepted(2, 100ms));

    rpc_client first_refused;
    EXPECT_FALSE(first_refused.connect("127.0.0.1", refused_port(), false, 1));
    EXPECT_FALSE(first_refused.connect("127.0.0.1", port, false, 1));
    EXPECT_EQ(service.accepted_count(), 1u);

    rpc_client named;
    EXPECT_THROW(named.connect("localhost", port, false, 1), std::system_error);
    // The service listens on IPv4 only: refused, but "::1" parses and is tried.
    rpc_client ipv6;
    EXPECT_FALSE(ipv6.connect("::1", port, false, 1));
}

TEST_F(ClientConnect, ReconnectsAfterARestartAndReplaysSubscriptionsInTopicOrder)
{
    rpc_client client;
    client.enable_auto_reconnect();
    ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
    for (const auto& topic : plugin_topics)
        client.subscribe(topic, [](std::string_view) {});
    ASSERT_TRUE(wait_for_frame_count(plugin_topics.size()));

    service.stop_listening();
    service.close_all_connections();
    ASSERT_TRUE(wait_until([&] { return !client.has_connected(); }));
    EXPECT_FALSE(service.wait_for_accepted(2, 1500ms));  // refused meanwhile

    service.resume_listening();
    ASSERT_TRUE(service.wait_for_accepted(2, 5s));
    std::vector<std::string> sorted = plugin_topics;
    std::sort(sorted.begin(), sorted.end());
    const std::uint64_t second = service.connections().back();
    ASSERT_TRUE(wait_until([&] { return service.subscriptions(second).size() == sorted.size(); }));
    EXPECT_EQ(service.subscriptions(second), sorted);
    EXPECT_EQ(sorted.front(), "deleteWayPointList");
    EXPECT_TRUE(client.has_connected());
}

TEST_F(ClientConnect, WithoutReconnectionAFailedConnectStaysDown)
{
    rpc_client client;
    service.stop_listening();
    EXPECT_FALSE(client.connect("127.0.0.1", port, false, 1));
    service.resume_listening();
    EXPECT_EQ(service.port(), port);
    EXPECT_FALSE(service.wait_for_accepted(1, 1500ms));
    EXPECT_TRUE(client.connect("127.0.0.1", port, false, 3));  // only a new connect restarts
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

TEST_F(ClientConnect, HeartbeatOnlyWhileConnected)
{
    rpc_client client;
    client.enable_auto_heartbeat(true, 20ms);
    EXPECT_FALSE(wait_until([&] { return client.outbox_size() > 0; }, 200ms));

    ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
    ASSERT_TRUE(wait_for_frame_count(3));
    for (const auto& frame : service.frames()) {
        EXPECT_EQ(frame.req_id, 0u);
        EXPECT_EQ(frame.func_id, 0u);
        EXPECT_TRUE(frame.body.empty());
        EXPECT_EQ(frame.decoded, "");
    }
    EXPECT_EQ(client.last_response_id(), 0u) << "the service answered a heartbeat";

    client.close();
    ASSERT_TRUE(service.wait_for_no_connections(3s));
    EXPECT_FALSE(wait_until([&] { return client.outbox_size() > 0; }, 200ms));
}

// What a health report reads: the age of the last frame received and how
// often the link came back. Neither exists before anything happened.
TEST_F(ClientConnect, LinkHealthTracksFramesReceivedAndReconnections)
{
    rpc_client client;
    client.enable_auto_reconnect();
    EXPECT_FALSE(client.last_receive_time().has_value());
    EXPECT_EQ(client.reconnect_count(), 0u);

    ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
    EXPECT_EQ(client.reconnect_count(), 0u);  // the first connection is no reconnection
    EXPECT_FALSE(client.last_receive_time().has_value());  // nothing received yet

    const auto before = std::chrono::steady_clock::now();
    const std::string echoed = client.call<5000, std::string>("echo", std::string("hi"));
    EXPECT_EQ(echoed, "hi");
    const auto first = client.last_receive_time();
    ASSERT_TRUE(first.has_value());
    EXPECT_GE(*first, before);
    EXPECT_LE(*first, std::chrono::steady_clock::now());

    client.subscribe("heartBeat", [](std::string_view) {});
    ASSERT_TRUE(service.wait_for_subscriber("heartBeat", 3s));
    ASSERT_EQ(service.publish("heartBeat", "{}"), 1u);
    ASSERT_TRUE(wait_until([&] { return client.last_receive_time() > first; }));  // publications count too

    for (std::uint64_t round = 1; round <= 2; ++round) {
        service.close_all_connections();
        ASSERT_TRUE(service.wait_for_accepted(round + 1, 5s));
        ASSERT_TRUE(wait_until([&] { return client.has_connected() && client.reconnect_count() == round; }, 5s))
            << "reconnections seen: " << client.reconnect_count();
    }
    EXPECT_TRUE(client.last_receive_time().has_value());  // kept across reconnections
}

// The size check of the plug-in relies on this being the exact wire size.
TEST_F(ClientConnect, CallFrameSizeIsTheHeaderAndTheBodyTheServiceReceives)
{
    rpc_client client;
    ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
    const std::string text(70000, 'j');
    (void)client.call<5000, std::string>("echo", text, std::string("pushRoute"));
    const auto frames = frames_named("echo");
    ASSERT_EQ(frames.size(), 1u);
    const std::size_t computed = call_frame_size(text, std::string("pushRoute"));
    EXPECT_EQ(computed, header_size + frames[0].body.size());
}

}  // namespace
}  // namespace pilot_rpc::test
