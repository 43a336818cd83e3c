// The Paho-backed MQTT client against a real mosquitto broker started by the
// test: delivery to handlers, a broker that goes away and comes back, and
// credentials.

#include <future>
#include <string>

#include <gtest/gtest.h>

#include "host/MqttPeers.h"

namespace {

using vlm::test::hostTestBound;
using vlm::test::Inbox;
using vlm::test::LogCapture;
using vlm::test::MosquittoBroker;
using vlm::test::optionsFor;
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
    ASSERT_TRUE(station->Subscribe([](const std::string&, const std::string&) { throw std::runtime_error("bad json"); },
                                   cmd, 0));
    ASSERT_TRUE(station->Subscribe(commands.handler(), cmd, 0));
    ASSERT_TRUE(station->Subscribe(commandsToo.handler(), cmd, 0));
    ASSERT_TRUE(station->Subscribe(everything.handler(), "/msg/#", 0));

    const std::string binary("a\0b\xff", 4);
    ASSERT_TRUE(peer->PublishMessage(binary, "/velmora/pilot/G1/SN-TEST-1/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("two", "/velmora/pilot/G1/SN-TEST-1/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("out", "/msg/pilot/P1/out", 1, 0, 2));
    ASSERT_TRUE(commands.waitForCount(2));
    ASSERT_TRUE(commandsToo.waitForCount(2));
    ASSERT_TRUE(everything.waitForCount(1));
    const Messages expected{{"/velmora/pilot/G1/SN-TEST-1/cmd", binary}, {"/velmora/pilot/G1/SN-TEST-1/cmd", "two"}};
    EXPECT_EQ(commands.all(), expected);
    EXPECT_EQ(commandsToo.all(), expected);
    EXPECT_EQ(log.errors("mqtt handler for topic /velmora/pilot/G1/SN-TEST-1/cmd threw: bad json"), 2);

    // Unsubscribing a filter removes all its handlers and leaves the others.
    EXPECT_TRUE(station->Unsubscribe(cmd));
    EXPECT_FALSE(station->Unsubscribe(cmd));
    ASSERT_TRUE(peer->PublishMessage("dropped", "/velmora/pilot/G1/SN-TEST-1/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("last", "/msg/pilot/P1/out", 1, 0, 2));
    ASSERT_TRUE(everything.waitForCount(2));
    EXPECT_EQ(everything.all(), (Messages{{"/msg/pilot/P1/out", "out"}, {"/msg/pilot/P1/out", "last"}}));
    EXPECT_EQ(commands.all(), expected);
}

TEST_F(MqttClientTest, AHandlerMayResubscribeAndPublishWithoutWaitingForItsOwnAcknowledgement)
{
    connect();
    // The plug-in answers a command from within its handler with a QoS 2
    // publish that waits a second; the acknowledgement can only be processed
    // once the handler has returned.
    Inbox& moved = newInbox();
    Inbox& answers = newInbox();
    ASSERT_TRUE(peer->Subscribe(answers.handler(), "/ground/answer", 2));
    std::promise<bool> done;
    ASSERT_TRUE(station->Subscribe(
        [&](const std::string&, const std::string& payload) {
            const bool subscribed = station->Subscribe(moved.handler(), "/SN/moved", 1);
            const bool unsubscribed = station->Unsubscribe("/SN/cmd");
            const bool answered = station->PublishMessage("answer to " + payload, "/ground/answer", 2, 0, 1);
            done.set_value(subscribed && unsubscribed && answered);
        },
        "/SN/cmd", 0));
    ASSERT_TRUE(peer->PublishMessage("ping", "/SN/cmd", 0, 0, 0));
    auto result = done.get_future();
    ASSERT_EQ(result.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_TRUE(result.get());
    ASSERT_TRUE(answers.waitForCount(1));
    EXPECT_EQ(answers.payloads(), std::vector<std::string>{"answer to ping"});
    ASSERT_TRUE(peer->PublishMessage("moved", "/SN/moved", 1, 0, 2));
    ASSERT_TRUE(moved.waitForCount(1));
}

TEST_F(MqttClientTest, PublishFailsWhileTheBrokerIsDownAndSubscriptionsReturnWithIt)
{
    connect();
    Inbox& inbox = newInbox();
    ASSERT_TRUE(station->Subscribe(inbox.handler(), "/SN/cmd", 1));
    broker.stop();
    ASSERT_TRUE(vlm::test::eventually([&] { return !station->isConnected() && !peer->isConnected(); }));
    EXPECT_FALSE(station->PublishMessage("lost", "/SN/cmd", 2, 0, 1));
    EXPECT_FALSE(station->PublishMessage("lost", "/SN/cmd", 0, 0, 0));

    // Same port, fresh broker that knows no subscription: both clients come
    // back and the station's subscription is restored without any call.
    broker.start();
    ASSERT_TRUE(station->waitUntilReady(hostTestBound));
    ASSERT_TRUE(peer->waitUntilReady(hostTestBound));
    ASSERT_TRUE(peer->PublishMessage("after", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(inbox.waitForCount(1));
    EXPECT_EQ(inbox.payloads(), std::vector<std::string>{"after"});
}

TEST(MqttClientStart, AFirstConnectWithoutBrokerFailsInTimeAndTheLinkComesUpLater)
{
    MosquittoBroker broker;
    Inbox inbox;
    vlm::PahoMqttClient station(optionsFor(broker));
    ASSERT_TRUE(station.Subscribe(inbox.handler(), "/SN/cmd", 0));
    auto attempt = std::async(std::launch::async, [&] { return station.connect(); });
    ASSERT_EQ(attempt.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_FALSE(attempt.get());

    broker.start();
    ASSERT_TRUE(station.waitUntilReady(hostTestBound));
    vlm::PahoMqttClient peer(optionsFor(broker));
    ASSERT_TRUE(peer.connect());
    ASSERT_TRUE(peer.PublishMessage("late", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(inbox.waitForCount(1));
}

TEST(MqttClientCredentials, TheBrokerLetsInTheRightUserOnlyAndARefusalIsLogged)
{
    MosquittoBroker::Options login;
    login.userName = "hangarInside";
    login.password = "tepid@brkr";
    MosquittoBroker broker(login);
    broker.start();
    LogCapture log;
    auto options = optionsFor(broker);
    options.userName = "hangarInside";
    options.password = "tepid@brkr";
    vlm::PahoMqttClient right(options);
    options.password = "tepid919";
    vlm::PahoMqttClient wrong(options);
    auto rightUp = std::async(std::launch::async, [&] { return right.connect(); });
    EXPECT_FALSE(wrong.connect());
    EXPECT_TRUE(rightUp.get()) << broker.output();
    EXPECT_FALSE(wrong.PublishMessage("x", "/a", 0, 0, 0));
    EXPECT_EQ(vlm::test::linesWith(log, "mqtt connect to tcp://" + broker.hostPort() + " failed: "), 1);
}

} // namespace
