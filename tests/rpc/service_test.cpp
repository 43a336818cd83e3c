// The service peer itself: what tests and the simulator rely on.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/write.hpp>

#include "rpc/codec.h"
#include "rpc_test_support.h"

namespace pilot_rpc::test {
namespace {

using RpcService = service_test;

TEST_F(RpcService, AnswersSeveralClientsAndRecordsTheirFrames)
{
    rpc_client first;
    rpc_client second;
    ASSERT_TRUE(first.connect("127.0.0.1", port, false, 3));
    ASSERT_TRUE(second.connect("127.0.0.1", port, false, 3));
    EXPECT_EQ((first.call<2000, int>("echo", 1)), 1);
    EXPECT_EQ((second.call<2000, std::string>("echo", std::string("two"))), "two");
    const auto frames = frames_named("echo");
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_NE(frames[0].connection, frames[1].connection);
    EXPECT_EQ(frames[0].decoded, "[1]");
    EXPECT_EQ(frames[1].decoded, "[\"two\"]");
}

TEST_F(RpcService, UnboundProcedureAndThrowingHandlerAnswerFailures)
{
    service.bind("throws", [](const msgpack::object&) -> service_reply { throw std::runtime_error("bad args"); });
    rpc_client client;
    ASSERT_TRUE(client.connect("127.0.0.1", port, false, 3));
    expect_thrown_text<std::logic_error>([&] { client.call<2000, int>("nobody"); }, rpc_service::unbound_text);
    expect_thrown_text<std::logic_error>([&] { client.call<2000, int>("throws"); }, "bad args");
}

TEST_F(RpcService, PublishesOnlyToSubscribersOfTheTopic)
{
    rpc_client subscriber;
    rpc_client bystander;
    slot<std::string> got;
    ASSERT_TRUE(subscriber.connect("127.0.0.1", port, false, 3));
    ASSERT_TRUE(service.wait_for_accepted(1, 3s));
    ASSERT_TRUE(bystander.connect("127.0.0.1", port, false, 3));
    EXPECT_FALSE(service.wait_for_subscriber("pilotConnect", 50ms));
    subscriber.subscribe("pilotConnect", [&](std::string_view data) { got.promise.set_value(std::string(data)); });
    ASSERT_TRUE(service.wait_for_subscriber("pilotConnect", 3s));
    EXPECT_EQ(service.publish("pilotConnect", "{\"a\":1}"), 1u);
    ASSERT_TRUE(got.ready_within(3s));
    EXPECT_EQ(got.future.get(), "{\"a\":1}");
    EXPECT_EQ(service.publish("otherTopic", "x"), 0u);

    // A subscriber that went away no longer counts.
    subscriber.close();
    ASSERT_TRUE(wait_until([&] { return service.connections().size() == 1; }));
    EXPECT_FALSE(service.wait_for_subscriber("pilotConnect", 50ms));
}

TEST(RpcServiceStart, APortInUseThrowsAndTheServiceStartsOnAnotherOne)
{
    rpc_service holder;
    const unsigned short taken = holder.start();
    rpc_service service;
    EXPECT_THROW(service.start(taken), std::system_error);
    const unsigned short port = service.start();
    EXPECT_NE(port, taken);
    rpc_client client;
    EXPECT_TRUE(client.connect("127.0.0.1", port, false, 3));
}

TEST_F(RpcService, ClosesAConnectionThatSendsAnOversizeBody)
{
    asio::io_context io;
    asio::ip::tcp::socket raw(io);
    raw.connect(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), port));
    ASSERT_TRUE(service.wait_for_accepted(1, 3s));
    asio::write(raw, asio::buffer(header_of(call_frame, max_buffer_len, 0)));
    EXPECT_TRUE(service.wait_for_no_connections(3s));
    EXPECT_TRUE(service.frames().empty());
}

TEST_F(RpcService, StopWhileOtherThreadsActOnItLetsEveryOneReturn)
{
    // Tasks that got in before stop() run; the ones after it are refused.
    // None of them may be left waiting for a thread that has ended.
    std::atomic<int> ran{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> actors;
    for (int t = 0; t < 3; ++t)
        actors.emplace_back([&] {
            while (!go.load())
                std::this_thread::yield();
            for (int i = 0; i < 2000; ++i) {
                service.execute([&] { ran.fetch_add(1); });
                service.publish("topic", "data");
            }
        });
    go.store(true);
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (ran.load() < 50 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_GE(ran.load(), 50);
    service.stop();
    for (auto& actor : actors)
        actor.join();
    const int after_stop = ran.load();
    service.execute([&] { ran.fetch_add(1); });
    EXPECT_EQ(ran.load(), after_stop);
}

}  // namespace
}  // namespace pilot_rpc::test
