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
    EXPECT_EQ(log.errors("mqtt message on /SN/cmd refused: 1025 bytes, above mqtt.max_payload_bytes (1024); 1 "
                         "refused in this burst, 1 in all"),
              1);
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
}

TEST_F(MqttDelivery, AFullQueueDropsCountsAndLogsOncePerBurstWhicheverBoundIsReached)
{
    // Each message is 7 bytes of topic and 300 of payload.
    struct Case {
        std::size_t messages, bytes, published, queued;
        const char* logged;
    } const cases[] = {
        {5, 16777216, 20, 5, "(5 messages, 16777216 bytes at most)"},
        {1000, 1000, 6, 3, "(1000 messages, 1000 bytes at most)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        connect([&](vlm::MqttClientOptions& o) {
            o.deliveryThreads = 1;
            o.deliveryQueueMessages = c.messages;
            o.deliveryQueueBytes = c.bytes;
        });
        LogCapture log;
        auto gate = newGate();
        holdHandlerAt(gate);
        for (std::size_t i = 0; i < c.published; ++i)
            ASSERT_TRUE(peer->PublishMessage(std::string(300, 'x'), "/SN/cmd", 1, 0, 2));
        const auto drops = c.published - c.queued;
        ASSERT_TRUE(eventually([&] { return station->counters().queueDrops == drops; }));
        EXPECT_EQ(station->counters().queueDepth, c.queued);
        EXPECT_EQ(station->counters().queueBytes, c.queued * 307);
        EXPECT_EQ(log.errors(std::string("mqtt delivery queue full ") + c.logged +
                             ": dropped a message of 307 bytes on /SN/cmd; 1 dropped in this burst, 1 in all"),
                  1);
        EXPECT_EQ(linesWith(log, "mqtt delivery queue full"), 1);

        gate->open();
        ASSERT_TRUE(eventually([&] { return station->counters().delivered == c.queued + 1; }));
        EXPECT_EQ(station->counters().queueDepth, 0u);
        EXPECT_EQ(station->counters().queueBytes, 0u);
    }
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

TEST_F(MqttDelivery, DestructionIsBoundedWhileAHandlerHangs)
{
    connect([](vlm::MqttClientOptions& o) { o.operationTimeout = 500ms; });
    LogCapture log;
    auto gate = newGate();
    holdHandlerAt(gate);

    auto destroyed = std::async(std::launch::async, [&] { station.reset(); });
    ASSERT_EQ(destroyed.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_EQ(log.errors("mqtt handler still running 500 ms after close; left to finish on its own"), 1);
    // The handler that outlived its client may still finish.
    gate->open();
}

} // namespace
