// What the client does with what it receives: length rules, frame types,
// publications.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include <asio/error.hpp>

#include "rpc/codec.h"
#include "rpc_test_support.h"

namespace pilot_rpc::test {
namespace {

class ClientReceive : public service_test {
protected:
    void SetUp() override
    {
        service_test::SetUp();
        client.set_error_callback([this](std::error_code ec) {
            std::lock_guard<std::mutex> lock(mutex);
            errors.push_back(ec);
            changed.notify_all();
        });
        ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
        ASSERT_TRUE(service.wait_for_accepted(1, 3s));
        connection = service.connections().front();
    }

    std::optional<std::error_code> first_error(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, timeout, [this] { return !errors.empty(); }))
            return std::nullopt;
        return errors.front();
    }

    void send_header(std::uint8_t type, std::uint32_t body_len, std::uint64_t req_id, const std::string& body = "")
    {
        ASSERT_TRUE(service.send_frame(connection, frame_header{frame_magic, type, body_len, req_id, 0}, body));
    }

    rpc_client client;
    std::uint64_t connection = 0;
    std::mutex mutex;  // guards errors
    std::condition_variable changed;
    std::vector<std::error_code> errors;
};

TEST_F(ClientReceive, BodyOfExactlyTheLimitStopsReadingSilently)
{
    // The limit frame's body is itself a well-formed answer to the first call,
    // and a second answer follows it: a client that read past the header
    // would deliver one of them.
    auto first = client.call_future("never");
    auto second = client.call_future("never");
    ASSERT_TRUE(wait_for_frame_count(2));
    const std::string body = service_reply::success(std::string(10485760 - 7, 'x')).body();
    ASSERT_EQ(body.size(), 10485760u);
    send_header(call_frame, 10485760, first.id, body);
    send_header(call_frame, 5, second.id, service_reply::success(1).body());

    EXPECT_NE(first.wait_for(1s), std::future_status::ready);
    EXPECT_NE(second.wait_for(0ms), std::future_status::ready);
    EXPECT_EQ(client.last_response_id(), 0u);
    EXPECT_EQ(client.pending_future_calls(), 2u);
    EXPECT_TRUE(client.has_connected());
    EXPECT_EQ(service.connections().size(), 1u);
    EXPECT_FALSE(first_error(0ms));
}

// A body that breaks off fails the one call it answers; the flag is cleared
// before close(), so the other pending calls stay in their tables.
TEST_F(ClientReceive, BodyReadErrorFailsOnlyItsCallAndKeepsTheTables)
{
    auto broken = client.call_future("never");
    auto other = client.call_future("never");
    std::atomic<int> callbacks{0};
    client.call_with_callback<0>("never", [&](std::error_code, std::string_view) { ++callbacks; });
    ASSERT_TRUE(wait_for_frame_count(3));
    send_header(call_frame, 100, broken.id, std::string("\x92\x00", 2));  // 2 of 100 bytes
    service.close_connection(connection);

    EXPECT_EQ(first_error(3s), std::error_code(asio::error::eof));
    ASSERT_EQ(broken.wait_for(3s), std::future_status::ready);
    expect_thrown_text<std::logic_error>([&] { broken.get().check(); }, "");  // failed, with no message
    EXPECT_EQ(client.last_response_id(), broken.id);
    EXPECT_TRUE(client.has_pending_future(other.id));
    EXPECT_EQ(client.pending_callback_calls(), 1u);
    EXPECT_NE(other.wait_for(200ms), std::future_status::ready);
    EXPECT_EQ(callbacks.load(), 0);
    EXPECT_FALSE(client.has_connected());
}

// The publication path leaves the link flagged connected: with reconnection
// on, the socket is replaced and connected again, but the connect handler
// ignores that completion, so nothing is replayed. Reading goes on on the new
// socket.
TEST_F(ClientReceive, MalformedPublicationResetsTheSocketAndIgnoresTheNewConnection)
{
    client.enable_auto_reconnect();
    client.subscribe("heartBeat", [](std::string_view) {});
    ASSERT_TRUE(service.wait_for_subscriber("heartBeat", 3s));
    send_header(topic_frame, 1, 0, std::string("\xc1", 1));
    EXPECT_EQ(first_error(3s), std::error_code(asio::error::invalid_argument));

    ASSERT_TRUE(service.wait_for_accepted(2, 5s));
    EXPECT_TRUE(wait_until([&] { return service.connections().size() == 1; }));  // the old socket is gone
    const std::uint64_t fresh = service.connections().back();
    EXPECT_NE(fresh, connection);

    // Answered on the new socket, after its connect completion was handled.
    EXPECT_EQ((client.call<3000, int>("echo", 5)), 5);
    EXPECT_EQ(frames_named("echo").at(0).connection, fresh);
    EXPECT_TRUE(service.subscriptions(fresh).empty());
    EXPECT_EQ(client.reconnect_count(), 0u);
    EXPECT_TRUE(client.has_connected());
}

}  // namespace
}  // namespace pilot_rpc::test
