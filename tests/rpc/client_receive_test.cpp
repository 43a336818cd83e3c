// What the client does with what it receives: length rules, frame types,
// publications.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <utility>

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
        frame_header header;
        header.frame_type = type;
        header.body_len = body_len;
        header.req_id = req_id;
        ASSERT_TRUE(service.send_frame(connection, header, body));
    }

    void send_publication(const std::string& topic, const std::string& data)
    {
        const msgpack::sbuffer body = pack_publication(0, topic, data);
        send_header(topic_frame, static_cast<std::uint32_t>(body.size()), 0, std::string(body.data(), body.size()));
    }

    rpc_client client;
    std::uint64_t connection = 0;
    std::mutex mutex;  // guards errors
    std::condition_variable changed;
    std::vector<std::error_code> errors;
};

TEST_F(ClientReceive, EmptyOrOversizeBodyClosesTheLinkWithMessageSize)
{
    for (std::uint32_t length : {0u, 10485761u}) {
        SCOPED_TRACE(length);
        send_header(call_frame, length, 1);
        const auto error = first_error(3s);
        ASSERT_TRUE(error);
        EXPECT_EQ(*error, std::error_code(asio::error::message_size));
        EXPECT_TRUE(service.wait_for_no_connections(3s));
        EXPECT_FALSE(client.has_connected());
        {
            std::lock_guard<std::mutex> lock(mutex);
            errors.clear();
        }
        ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
        ASSERT_TRUE(wait_until([&] { return !service.connections().empty(); }));
        connection = service.connections().front();
    }
}

TEST_F(ClientReceive, LargestAllowedBodyIsRead)
{
    auto pending = client.call_future("never");
    const std::string text(10485759 - 7, 'x');  // fixarray, fixint, str32 header: 7 bytes
    const std::string body = service_reply::success(text).body();
    ASSERT_EQ(body.size(), 10485759u);
    send_header(call_frame, 10485759, pending.id, body);
    ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(pending.get().value<std::string>().size(), text.size());
}

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

    const auto error = first_error(3s);
    ASSERT_TRUE(error);
    EXPECT_EQ(*error, std::error_code(asio::error::eof));
    ASSERT_EQ(broken.wait_for(3s), std::future_status::ready);
    try {
        broken.get().check();  // an empty result: failed, with no message
        FAIL() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "");
    }
    EXPECT_EQ(client.last_response_id(), broken.id);
    EXPECT_TRUE(client.has_pending_future(other.id));
    EXPECT_EQ(client.pending_callback_calls(), 1u);
    EXPECT_NE(other.wait_for(200ms), std::future_status::ready);
    EXPECT_EQ(callbacks.load(), 0);
    EXPECT_FALSE(client.has_connected());
}

TEST_F(ClientReceive, UnknownFrameTypeClosesWithInvalidArgument)
{
    send_header(7, 1, 1, std::string("\x90", 1));
    const auto error = first_error(3s);
    ASSERT_TRUE(error);
    EXPECT_EQ(*error, std::error_code(asio::error::invalid_argument));
    EXPECT_TRUE(service.wait_for_no_connections(3s));
}

TEST_F(ClientReceive, SecondSubscribeForATopicKeepsTheFirstHandlerAndSendsNothing)
{
    slot<std::string> got;
    client.subscribe("pushTelemetry", [&](std::string_view data) { got.promise.set_value(std::string(data)); });
    client.subscribe("pushTelemetry", [](std::string_view) { ADD_FAILURE() << "second handler ran"; });
    ASSERT_TRUE(wait_until([&] { return !service.subscriptions(connection).empty(); }));
    EXPECT_FALSE(wait_until([&] { return service.subscriptions(connection).size() > 1; }, 200ms));
    service.publish("pushTelemetry", "t");
    ASSERT_TRUE(got.ready_within(3s));
    EXPECT_EQ(client.subscription_count(), 1u);
}

// Each publication reaches its own topic's handler on the I/O thread, in
// order; one for a topic nobody subscribed is dropped and reading goes on.
TEST_F(ClientReceive, InterleavedTopicsEachReachTheirOwnHandlerOnTheIoThread)
{
    std::mutex mutex;
    std::string seen;  // handler letter and data, in delivery order
    std::thread::id thread;
    for (const char* topic : {"a", "b"})
        client.subscribe(topic, [&, topic](std::string_view data) {
            std::lock_guard<std::mutex> lock(mutex);
            seen += topic + std::string(data);
            thread = std::this_thread::get_id();
        });
    ASSERT_TRUE(wait_until([&] { return service.subscriptions(connection).size() == 2; }));
    for (const auto& [topic, data] : {std::pair{"a", "1"}, {"b", "2"}, {"b", "3"}, {"zz", "4"}, {"a", "5"}})
        send_publication(topic, data);
    EXPECT_TRUE(wait_until([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size() >= 8;
    }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(seen, "a1b2b3a5");
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_FALSE(first_error(0ms));
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
    const auto error = first_error(3s);
    ASSERT_TRUE(error);
    EXPECT_EQ(*error, std::error_code(asio::error::invalid_argument));

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

TEST_F(ClientReceive, HandlerExceptionRunsTheErrorRoutine)
{
    client.subscribe("boom", [](std::string_view) { throw std::runtime_error("handler failed"); });
    ASSERT_TRUE(wait_until([&] { return !service.subscriptions(connection).empty(); }));
    service.publish("boom", "{}");
    const auto error = first_error(3s);
    ASSERT_TRUE(error);
    EXPECT_EQ(*error, std::error_code(asio::error::invalid_argument));
}

}  // namespace
}  // namespace pilot_rpc::test
