// The Paho-backed MQTT client against a real mosquitto broker started by the
// test: which handlers get a message, a broker that comes late, goes away and
// comes back, delivery threads that leave the link alone, the bounds on what
// waits for a handler, and a hung handler.

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
using vlm::test::MosquittoBroker;
using Messages = std::vector<std::pair<std::string, std::string>>;

using MqttClientTest = vlm::test::MqttPeersTest;

TEST_F(MqttClientTest, EveryMatchingHandlerGetsEachMessageOnceEvenBesideAThrowingOne)
{
    connect();
    LogCapture log;
    Inbox& commands = newInbox();
    Inbox& commandsToo = newInbox();
    Inbox& everything = newInbox();
    const std::string cmd = "/velmora/pilot/+/SN-TEST-1/cmd";
    const std::string topic = "/velmora/pilot/G1/SN-TEST-1/cmd";
    ASSERT_TRUE(station->Subscribe([](const std::string&, const std::string&) { throw std::runtime_error("bad json"); },
                                   cmd, 0));
    ASSERT_TRUE(station->Subscribe(commands.handler(), cmd, 0));
    ASSERT_TRUE(station->Subscribe(commandsToo.handler(), cmd, 0));
    ASSERT_TRUE(station->Subscribe(everything.handler(), "/msg/#", 0));
    // A filter the broker would refuse never reaches the library.
    EXPECT_FALSE(station->Subscribe(everything.handler(), "/msg/#/x", 0));
    EXPECT_EQ(log.errors("mqtt subscribe refused: topic \"/msg/#/x\", qos 0"), 1);

    // One topic is served by one delivery thread: its messages keep their order.
    Messages expected{{topic, std::string("a\0b\xff", 4)}};
    for (int i = 1; i < 30; ++i)
        expected.emplace_back(topic, std::to_string(i));
    for (const auto& message : expected)
        ASSERT_TRUE(peer->PublishMessage(message.second, topic, 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("out", "/msg/pilot/P1/out", 1, 0, 2));
    ASSERT_TRUE(commands.waitForCount(30));
    ASSERT_TRUE(commandsToo.waitForCount(30));
    EXPECT_EQ(commands.all(), expected);
    EXPECT_EQ(commandsToo.all(), expected);
    EXPECT_EQ(log.errors("mqtt handler for topic " + topic + " threw: bad json"), 30);

    // Unsubscribing a filter removes all its handlers and leaves the others.
    EXPECT_TRUE(station->Unsubscribe(cmd));
    ASSERT_TRUE(peer->PublishMessage("dropped", topic, 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("last", "/msg/pilot/P1/out", 1, 0, 2));
    ASSERT_TRUE(everything.waitForCount(2));
    EXPECT_EQ(everything.all(), (Messages{{"/msg/pilot/P1/out", "out"}, {"/msg/pilot/P1/out", "last"}}));
    EXPECT_EQ(commands.all(), expected);
}

// A handler may change subscriptions and publish on its own client, and an
// Unsubscribe from outside returns only once the running handler finished.
TEST_F(MqttClientTest, HandlersMayUseTheirClientAndUnsubscribeWaitsForTheRunningOne)
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
    EXPECT_EQ(moved.all()[0], std::make_pair(std::string("/SN/moved"), std::string("from handler")));

    auto unsubscribing = newGate();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    std::promise<void> entered;
    ASSERT_TRUE(station->Subscribe(
        [unsubscribing, finished, &entered](const std::string&, const std::string&) {
            entered.set_value();
            unsubscribing->wait();
            std::this_thread::sleep_for(200ms);  // still busy when Unsubscribe has begun to wait
            finished->store(true);
        },
        "/SN/slow", 0));
    ASSERT_TRUE(peer->PublishMessage("x", "/SN/slow", 1, 0, 2));
    ASSERT_EQ(entered.get_future().wait_for(hostTestBound), std::future_status::ready);
    unsubscribing->open();
    EXPECT_TRUE(station->Unsubscribe("/SN/slow"));
    EXPECT_TRUE(finished->load());
}

TEST(MqttClientLink, AStationStartedBeforeItsBrokerLogsInLaterAndResubscribesAfterEachLoss)
{
    MosquittoBroker::Options login;
    login.userName = "hangarInside";
    login.password = "tepid@brkr";
    MosquittoBroker broker(login);
    const auto options = [&] {
        auto o = vlm::test::optionsFor(broker);
        o.userName = login.userName;
        o.password = login.password;
        return o;
    };
    LogCapture log;
    Inbox inbox;
    vlm::PahoMqttClient station(options());
    ASSERT_TRUE(station.Subscribe(inbox.handler(), "/SN/cmd", 1));
    auto attempt = std::async(std::launch::async, [&] { return station.connect(); });
    ASSERT_EQ(attempt.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_FALSE(attempt.get());
    EXPECT_EQ(linesWith(log, "mqtt connect to tcp://" + broker.hostPort() + " failed: "), 1);

    // Each time a fresh broker that knows no subscription comes up on the
    // same port, the station's subscription returns without any call.
    for (int round = 1; round <= 2; ++round) {
        broker.start();
        ASSERT_TRUE(station.waitUntilReady(hostTestBound));
        vlm::PahoMqttClient peer(options());
        ASSERT_TRUE(peer.connect());
        ASSERT_TRUE(peer.PublishMessage("round " + std::to_string(round), "/SN/cmd", 1, 0, 2));
        ASSERT_TRUE(inbox.waitForCount(round));
        broker.stop();
        ASSERT_TRUE(eventually([&] { return !station.isConnected(); }));
        EXPECT_FALSE(station.PublishMessage("lost", "/SN/cmd", 2, 0, 1));
    }
    EXPECT_EQ(inbox.all(), (Messages{{"/SN/cmd", "round 1"}, {"/SN/cmd", "round 2"}}));
}

// A message above the size bound is refused on arrival and takes no place in
// the queue; one that does not fit the queue's count or bytes is dropped.
TEST_F(MqttClientTest, OversizeMessagesAndAFullQueueAreRefusedCountedAndLoggedOncePerBurst)
{
    // Each queued message is 7 bytes of topic and 300 of payload.
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
            o.maxPayloadBytes = 1000;
            o.deliveryThreads = 1;
            o.deliveryQueueMessages = c.messages;
            o.deliveryQueueBytes = c.bytes;
        });
        LogCapture log;
        auto gate = newGate();
        holdHandlerAt(gate);
        for (int i = 0; i < 2; ++i)
            ASSERT_TRUE(peer->PublishMessage(std::string(1001, 'b'), "/SN/cmd", 1, 0, 2));
        for (std::size_t i = 0; i < c.published; ++i)
            ASSERT_TRUE(peer->PublishMessage(std::string(300, 'x'), "/SN/cmd", 1, 0, 2));
        const auto drops = c.published - c.queued;
        ASSERT_TRUE(eventually([&] { return station->counters().queueDrops == drops; }));
        EXPECT_EQ(station->counters().oversizeRefused, 2u);
        EXPECT_EQ(station->counters().queueDepth, c.queued);
        EXPECT_EQ(station->counters().queueBytes, c.queued * 307);
        EXPECT_EQ(log.errors("mqtt message on /SN/cmd refused: 1001 bytes, above mqtt.max_payload_bytes (1000); 1 "
                             "refused in this burst, 1 in all"),
                  1);
        EXPECT_EQ(log.errors(std::string("mqtt delivery queue full ") + c.logged +
                             ": dropped a message of 307 bytes on /SN/cmd; 1 dropped in this burst, 1 in all"),
                  1);
        EXPECT_EQ(linesWith(log, "mqtt "), 2);
        gate->open();
        ASSERT_TRUE(eventually([&] { return station->counters().delivered == c.queued + 1; }));
        EXPECT_EQ(station->counters().queueBytes, 0u);
    }
}

// A station that shuts down must not wait for ever for a hung handler, and
// while one hangs the acknowledgements the library's network thread
// processes still come in.
TEST_F(MqttClientTest, AHungHandlerHoldsUpNeitherTheLinkNorDestructionForLong)
{
    connect([](vlm::MqttClientOptions& o) { o.operationTimeout = 500ms; });
    LogCapture log;
    holdHandlerAt(newGate());
    EXPECT_TRUE(station->PublishMessage("ack needed", "/SN/other", 2, 0, 5));
    auto destroyed = std::async(std::launch::async, [&] { station.reset(); });
    ASSERT_EQ(destroyed.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_EQ(log.errors("mqtt handler still running 500 ms after close; left to finish on its own"), 1);
}

} // namespace
