// How the MQTT client hands messages to handlers, against a real mosquitto:
// the size bound at intake, delivery threads that leave the link alone, the
// bounded queue, and the guarantees of Unsubscribe and destruction.

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "host/MqttPeers.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::eventually;
using vlm::test::hostTestBound;
using vlm::test::Inbox;
using vlm::test::linesWith;
using vlm::test::LogCapture;

using MqttDelivery = vlm::test::MqttPeersTest;

TEST_F(MqttDelivery, MessagesAboveTheSizeBoundNeverReachAHandlerAndABurstIsLoggedOnce)
{
    connect([](vlm::MqttClientOptions& o) { o.maxPayloadBytes = 1024; });
    LogCapture log;
    Inbox& inbox = newInbox();
    ASSERT_TRUE(station->Subscribe(inbox.handler(), "/SN/cmd", 1));
    ASSERT_TRUE(peer->PublishMessage(std::string(1024, 'a'), "/SN/cmd", 1, 0, 2));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(peer->PublishMessage(std::string(1025 + i, 'b'), "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("end", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(inbox.waitForCount(2));

    EXPECT_EQ(inbox.payloads(), (std::vector<std::string>{std::string(1024, 'a'), "end"}));
    // Counted once the handler has returned.
    ASSERT_TRUE(eventually([&] { return station->counters().delivered == 2; }));
    EXPECT_EQ(station->counters().oversizeRefused, 5u);
    EXPECT_EQ(linesWith(log, "mqtt message on /SN/cmd refused: 1025 bytes, above mqtt.max_payload_bytes (1024)"), 1);
    EXPECT_EQ(linesWith(log, "refused"), 1);
}

TEST_F(MqttDelivery, ABlockedHandlerLeavesTheLinkWorkingAndOneTopicKeepsItsOrder)
{
    connect();
    auto gate = newGate();
    Inbox& ordered = newInbox();
    ASSERT_TRUE(station->Subscribe(ordered.handler(), "/SN/ordered", 1));
    holdHandlerAt(gate, "/SN/blocked");
    // While a handler blocks, the station's own acknowledgements, which the
    // library's network thread processes, still come in.
    EXPECT_TRUE(station->PublishMessage("ack needed", "/SN/other", 2, 0, 5));
    std::vector<std::string> expected;
    for (int i = 0; i < 50; ++i) {
        expected.push_back(std::to_string(i));
        ASSERT_TRUE(peer->PublishMessage(expected.back(), "/SN/ordered", 1, 0, 0));
    }
    gate->open();
    ASSERT_TRUE(ordered.waitForCount(50));
    EXPECT_EQ(ordered.payloads(), expected);
    EXPECT_TRUE(station->isConnected());
}

TEST_F(MqttDelivery, AFullQueueDropsCountsAndLogsOncePerBurst)
{
    connect([](vlm::MqttClientOptions& o) {
        o.deliveryThreads = 1;
        o.deliveryQueueMessages = 5;
    });
    LogCapture log;
    auto gate = newGate();
    holdHandlerAt(gate);
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(peer->PublishMessage("m" + std::to_string(i), "/SN/cmd", 1, 0, 2));

    // One running, five waiting, the rest dropped.
    ASSERT_TRUE(eventually([&] { return station->counters().queueDrops == 15; })) << station->counters().queueDrops;
    EXPECT_EQ(station->counters().queueDepth, 5u);
    gate->open();
    ASSERT_TRUE(eventually([&] { return station->counters().delivered == 6; }));
    const auto counters = station->counters();
    EXPECT_EQ(counters.delivered + counters.queueDrops, 21u);
    EXPECT_EQ(counters.queueDepth, 0u);
    EXPECT_EQ(counters.queueBytes, 0u);
    EXPECT_EQ(linesWith(log, "mqtt delivery queue full (5 messages"), 1);
}

TEST_F(MqttDelivery, TheQueueIsBoundedInBytesToo)
{
    connect([](vlm::MqttClientOptions& o) {
        o.deliveryThreads = 1;
        o.deliveryQueueBytes = 1000;
    });
    holdHandlerAt(newGate());
    // 7 bytes of topic and 300 of payload: three fit in 1000 bytes.
    for (int i = 0; i < 6; ++i)
        ASSERT_TRUE(peer->PublishMessage(std::string(300, 'x'), "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(eventually([&] { return station->counters().queueDrops == 3; }));
    EXPECT_EQ(station->counters().queueDepth, 3u);
    EXPECT_EQ(station->counters().queueBytes, 3u * 307u);
}

TEST_F(MqttDelivery, UnsubscribeFromOutsideReturnsOnlyAfterTheRunningHandlerFinished)
{
    connect();
    auto unsubscribing = newGate();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    std::promise<void> entered;
    ASSERT_TRUE(station->Subscribe(
        [unsubscribing, finished, &entered](const std::string&, const std::string&) {
            entered.set_value();
            unsubscribing->wait();
            // Still busy when Unsubscribe has begun to wait.
            std::this_thread::sleep_for(200ms);
            finished->store(true);
        },
        "/SN/cmd", 0));
    ASSERT_TRUE(peer->PublishMessage("x", "/SN/cmd", 1, 0, 2));
    ASSERT_EQ(entered.get_future().wait_for(hostTestBound), std::future_status::ready);
    unsubscribing->open();
    EXPECT_TRUE(station->Unsubscribe("/SN/cmd"));
    EXPECT_TRUE(finished->load());
}

TEST_F(MqttDelivery, HandlersMayChangeSubscriptionsAndPublishWithoutDeadlock)
{
    connect();
    Inbox& moved = newInbox();
    std::promise<bool> done;
    ASSERT_TRUE(station->Subscribe(
        [&](const std::string&, const std::string&) {
            const bool subscribed = station->Subscribe(moved.handler(), "/SN/moved", 1);
            const bool unsubscribed = station->Unsubscribe("/SN/cmd");
            const bool published = station->PublishMessage("from handler", "/SN/moved", 1, 0, 2);
            done.set_value(subscribed && unsubscribed && published);
        },
        "/SN/cmd", 0));
    ASSERT_TRUE(peer->PublishMessage("go", "/SN/cmd", 1, 0, 2));
    auto result = done.get_future();
    ASSERT_EQ(result.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_TRUE(result.get());
    ASSERT_TRUE(moved.waitForCount(1));
    EXPECT_EQ(moved.payloads()[0], "from handler");
}

TEST_F(MqttDelivery, DestructionIsBoundedWhileAHandlerHangs)
{
    connect([](vlm::MqttClientOptions& o) { o.operationTimeout = 500ms; });
    LogCapture log;
    auto gate = newGate();
    auto left = std::make_shared<std::promise<void>>();
    std::promise<void> entered;
    ASSERT_TRUE(station->Subscribe(
        [gate, left, &entered](const std::string&, const std::string&) {
            entered.set_value();
            gate->wait();
            left->set_value();
        },
        "/SN/cmd", 0));
    ASSERT_TRUE(peer->PublishMessage("hang", "/SN/cmd", 1, 0, 2));
    ASSERT_EQ(entered.get_future().wait_for(hostTestBound), std::future_status::ready);

    auto destroyed = std::async(std::launch::async, [&] { station.reset(); });
    ASSERT_EQ(destroyed.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_TRUE(log.contains("mqtt handler still running 500 ms after close"));
    // The handler that outlived its client still finishes cleanly.
    gate->open();
    EXPECT_EQ(left->get_future().wait_for(hostTestBound), std::future_status::ready);
}

} // namespace
