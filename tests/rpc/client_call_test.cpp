// Calls against the in-process service: synchronous, future and callback
// styles, their time-outs, the pending-call tables, and what the client does
// with what it receives.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>

#include <asio/error.hpp>

#include "rpc/codec.h"
#include "rpc_test_support.h"

namespace pilot_rpc::test {
namespace {

struct call_outcome {
    std::error_code ec;
    std::string body;
    std::thread::id thread;
};

/// A callback that keeps its first outcome and counts its calls.
struct callback_probe {
    std::atomic<int> calls{0};
    slot<call_outcome> first;
    auto handler()
    {
        return [this](std::error_code ec, std::string_view body) {
            if (calls.fetch_add(1) == 0)
                first.promise.set_value({ec, std::string(body), std::this_thread::get_id()});
        };
    }
};

class ClientCall : public service_test {
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

using ClientReceive = ClientCall;  // what the client does with what it receives

// Each call is answered twice, and answers come for ids nobody asked: the
// callback runs once, with the raw body, on the I/O thread, and no table grows.
// A synchronous call returns the value, or throws the service's message.
TEST_F(ClientCall, AnswersReachTheirCallOnceAndStrayAnswersCreateNoEntries)
{
    service.answer_twice("echo");
    callback_probe probe;
    client.call_with_callback<2000>("echo", probe.handler(), 7);
    EXPECT_EQ((client.call<2000, int>("echo", 2)), 2);
    expect_thrown_text<std::logic_error>([&] { client.call<2000, int>("fail"); }, "no vehicle");
    const std::string body = service_reply::success(1).body();
    ASSERT_TRUE(service.send_frame(service.connections().front(), call_frame, 0x8000000000000777ULL, body));
    ASSERT_TRUE(service.send_frame(service.connections().front(), call_frame, 777, body));
    ASSERT_TRUE(wait_until([&] { return client.last_response_id() == 777; }));
    ASSERT_TRUE(probe.first.ready_within(0ms));
    const call_outcome outcome = probe.first.future.get();
    EXPECT_FALSE(outcome.ec);
    EXPECT_EQ(req_result(outcome.body).value<int>(), 7);
    EXPECT_NE(outcome.thread, std::this_thread::get_id());
    EXPECT_EQ(client.pending_callback_calls(), 0u);
    EXPECT_EQ(client.pending_future_calls(), 0u);
    EXPECT_EQ(probe.calls.load(), 1);
}

// While down a callback fails at once on the caller's thread. Once sent, its
// time-out itself calls nothing; the late answer delivers timed_out, once.
TEST_F(ClientCall, CallbackFailsAtOnceWhileDownAndALateAnswerDeliversTimedOutOnce)
{
    rpc_client idle;
    callback_probe down;
    idle.call_with_callback<2000>("echo", down.handler(), 1);
    ASSERT_TRUE(down.first.ready_within(0ms));
    const call_outcome refused = down.first.future.get();
    EXPECT_EQ(refused.ec, std::error_code(asio::error::not_connected));
    EXPECT_EQ(refused.body, "not connected");
    EXPECT_EQ(refused.thread, std::this_thread::get_id());

    service.delay_answers("echo", 400ms);
    callback_probe late;
    client.call_with_callback<50>("echo", late.handler(), 1);
    EXPECT_FALSE(late.first.ready_within(200ms));
    ASSERT_TRUE(late.first.ready_within(3s));
    const call_outcome outcome = late.first.future.get();
    EXPECT_EQ(outcome.ec, std::error_code(asio::error::timed_out));
    EXPECT_TRUE(outcome.body.empty());
    EXPECT_EQ(client.pending_callback_calls(), 0u);
    EXPECT_EQ(late.calls.load(), 1);
    EXPECT_EQ(down.calls.load(), 1);
}

// Destruction closes the link: it breaks waiting futures, drops callbacks
// without calling them, and is not held by a silent service or heartbeats.
TEST_F(ClientCall, DestructionWithCallsPendingBreaksFuturesAndCallsNoCallback)
{
    auto doomed = std::make_unique<rpc_client>();
    doomed->enable_auto_heartbeat(true, 10ms);
    ASSERT_TRUE(doomed->connect("127.0.0.1", port, false, 3));
    std::atomic<int> callbacks{0};
    for (int i = 0; i < 20; ++i)
        doomed->call_with_callback<120000>("never", [&](std::error_code, std::string_view) { ++callbacks; });
    auto pending = doomed->call_future("never");
    ASSERT_TRUE(wait_for_frame_count(21));
    auto destroyed = std::async(std::launch::async, [&] { doomed.reset(); });
    EXPECT_EQ(destroyed.wait_for(3s), std::future_status::ready);
    destroyed.wait();  // a hang shows as the test's own time-out
    EXPECT_EQ(callbacks.load(), 0);
    expect_broken_promise(pending);
}

// A failed header read reports the lost link, fails every pending callback
// with the error, then close() clears both tables: a waiting synchronous call
// ends with a broken promise, not with its time-out.
TEST_F(ClientCall, HeaderReadFailureFailsEveryCallbackAndBreaksWaitingCalls)
{
    slot<std::error_code> first;
    slot<std::error_code> second;
    client.call_with_callback<0>("never", [&](std::error_code ec, std::string_view) { first.promise.set_value(ec); });
    client.call_with_callback<0>("never", [&](std::error_code ec, std::string_view) { second.promise.set_value(ec); });
    auto waiting = std::async(std::launch::async, [&] { return client.call<5000, int>("never"); });
    ASSERT_TRUE(wait_for_frame_count(3));
    service.close_all_connections();
    ASSERT_TRUE(first.ready_within(3s));
    ASSERT_TRUE(second.ready_within(3s));
    EXPECT_EQ(first.future.get(), std::error_code(asio::error::eof));
    EXPECT_EQ(second.future.get(), std::error_code(asio::error::eof));
    expect_broken_promise(waiting);
    EXPECT_EQ(client.pending_callback_calls(), 0u);
    EXPECT_EQ(client.pending_future_calls(), 0u);
    EXPECT_EQ(first_error(0ms), std::error_code(asio::error::eof));
    EXPECT_FALSE(client.has_connected());
}

// A call made while the service is down waits its whole time; its write fails
// and its frame then holds the outbox: when the link comes back nothing leaves
// (not even the replayed subscription) until a read fails once and close()
// empties the queue.
TEST_F(ClientCall, SyncCallWhileTheServiceIsDownWaitsItsFullTimeAndHoldsTheQueueUntilAReadFails)
{
    slot<std::error_code> write_failed;  // only a failed write reaches the callback while down
    rpc_client late;
    late.enable_auto_reconnect();
    late.set_error_callback([&, once = std::make_shared<std::once_flag>()](std::error_code ec) {
        std::call_once(*once, [&] { write_failed.promise.set_value(ec); });
    });
    service.stop_listening();
    ASSERT_FALSE(late.connect("127.0.0.1", port, false, 1));
    service.clear_frames();

    const auto before = std::chrono::steady_clock::now();
    expect_thrown_text<std::out_of_range>([&] { late.call<5000, int>("echo", 1); }, "timeout or deferred");
    EXPECT_GE(std::chrono::steady_clock::now() - before, 5000ms);
    ASSERT_TRUE(write_failed.ready_within(0ms));
    EXPECT_TRUE(late.has_pending_future(1));
    late.subscribe("heartBeat", [](std::string_view) {});

    service.resume_listening();
    ASSERT_TRUE(wait_until([&] { return late.has_connected(); }, 5s));
    const std::uint64_t held = service.connections().back();
    EXPECT_FALSE(wait_for_frame_count(1, 500ms)) << "a frame left past the failed one";
    EXPECT_EQ(late.outbox_size(), 3u);  // the call, the subscription, its replay

    service.close_connection(held);
    ASSERT_TRUE(service.wait_for_subscriber("heartBeat", 5s));
    EXPECT_FALSE(late.has_pending_future(1));
    EXPECT_EQ((late.call<2000, int>("echo", 3)), 3);
    const auto echoes = frames_named("echo");
    ASSERT_EQ(echoes.size(), 1u);
    EXPECT_NE(echoes[0].connection, held);
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
