// The Paho-backed MQTT client against a real mosquitto broker started by the
// test: delivery, publishing, a broker that goes away and comes back, and
// credentials.

#include <future>
#include <string>

#include <gtest/gtest.h>

#include "host/MqttPeers.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::hostTestBound;
using vlm::test::Inbox;
using vlm::test::MosquittoBroker;
using vlm::test::optionsFor;

using MqttClientTest = vlm::test::MqttPeersTest;

TEST_F(MqttClientTest, DeliversEachMessageExactlyOnceToEveryHandlerWhoseFilterMatches)
{
    connect();
    Inbox& commands = newInbox();
    Inbox& commandsToo = newInbox();
    Inbox& everything = newInbox();
    ASSERT_TRUE(station->Subscribe(commands.handler(), "/velmora/pilot/+/SN-TEST-1/cmd", 0));
    ASSERT_TRUE(station->Subscribe(commandsToo.handler(), "/velmora/pilot/+/SN-TEST-1/cmd", 0));
    ASSERT_TRUE(station->Subscribe(everything.handler(), "/msg/#", 0));

    ASSERT_TRUE(peer->PublishMessage("{\"api\":\"getConfig\"}", "/velmora/pilot/G1/SN-TEST-1/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("two", "/velmora/pilot/G1/SN-TEST-1/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("out", "/msg/pilot/P1/out", 1, 0, 2));
    ASSERT_TRUE(everything.waitForCount(1));
    ASSERT_TRUE(commands.waitForCount(2));
    ASSERT_TRUE(commandsToo.waitForCount(2));

    const auto got = commands.all();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].first, "/velmora/pilot/G1/SN-TEST-1/cmd");
    EXPECT_EQ(got[0].second, "{\"api\":\"getConfig\"}");
    EXPECT_EQ(commandsToo.size(), 2u);
    EXPECT_EQ(everything.all(), (std::vector<std::pair<std::string, std::string>>{{"/msg/pilot/P1/out", "out"}}));
    EXPECT_EQ(station->getstation(), "SN-TEST-1");
}

TEST_F(MqttClientTest, PublishesPayloadsByteForByteWithTheRequestedRetainFlag)
{
    connect();
    const std::string binary("a\0b\xff", 4);
    ASSERT_TRUE(peer->PublishMessage(binary, "/station/retained", 2, 1, 2));

    // Subscribing after the publication still gets the retained message.
    Inbox& inbox = newInbox();
    ASSERT_TRUE(station->Subscribe(inbox.handler(), "/station/retained", 1));
    ASSERT_TRUE(inbox.waitForCount(1));
    EXPECT_EQ(inbox.all()[0].second, binary);
}

TEST_F(MqttClientTest, PublishingFromInsideAHandlerDoesNotWaitForTheAcknowledgement)
{
    connect();
    // The plug-in answers a command from within the command's handler with a
    // QoS 2 publish that asks to wait a second; the acknowledgement can only be
    // processed once the handler has returned.
    std::promise<bool> publishResult;
    ASSERT_TRUE(station->Subscribe(
        [&](const std::string&, const std::string& payload) {
            publishResult.set_value(station->PublishMessage("answer to " + payload, "/ground/answer", 2, 0, 1));
        },
        "/station/cmd", 0));
    Inbox& answers = newInbox();
    ASSERT_TRUE(peer->Subscribe(answers.handler(), "/ground/answer", 2));

    ASSERT_TRUE(peer->PublishMessage("ping", "/station/cmd", 0, 0, 0));
    auto result = publishResult.get_future();
    ASSERT_EQ(result.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_TRUE(result.get());
    ASSERT_TRUE(answers.waitForCount(1));
    EXPECT_EQ(answers.all()[0].second, "answer to ping");
    // The handler refers to this test's promise: no later delivery may run it.
    EXPECT_TRUE(station->Unsubscribe("/station/cmd"));
}

TEST_F(MqttClientTest, UnsubscribeRemovesEveryHandlerOfTheTopicOnly)
{
    connect();
    Inbox& removedA = newInbox();
    Inbox& removedB = newInbox();
    Inbox& kept = newInbox();
    ASSERT_TRUE(station->Subscribe(removedA.handler(), "/SN/cmd", 0));
    ASSERT_TRUE(station->Subscribe(removedB.handler(), "/SN/cmd", 0));
    ASSERT_TRUE(station->Subscribe(kept.handler(), "/SN/telemetry", 0));

    EXPECT_TRUE(station->Unsubscribe("/SN/cmd"));
    EXPECT_FALSE(station->Unsubscribe("/SN/cmd"));
    EXPECT_FALSE(station->Unsubscribe("/SN/never"));

    ASSERT_TRUE(peer->PublishMessage("dropped", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("kept", "/SN/telemetry", 1, 0, 2));
    ASSERT_TRUE(kept.waitForCount(1));
    EXPECT_EQ(removedA.size(), 0u);
    EXPECT_EQ(removedB.size(), 0u);
}

TEST_F(MqttClientTest, AThrowingHandlerIsLoggedAndTheOthersStillRun)
{
    connect();
    vlm::test::LogCapture log;
    Inbox& after = newInbox();
    ASSERT_TRUE(station->Subscribe([](const std::string&, const std::string&) { throw std::runtime_error("bad json"); },
                                   "/SN/cmd", 0));
    ASSERT_TRUE(station->Subscribe(after.handler(), "/SN/cmd", 0));
    ASSERT_TRUE(peer->PublishMessage("x", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("y", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(after.waitForCount(2));
    EXPECT_TRUE(log.contains("bad json"));
}

TEST_F(MqttClientTest, RefusesInvalidFiltersTopicsAndQos)
{
    connect();
    Inbox& inbox = newInbox();
    EXPECT_FALSE(station->Subscribe(inbox.handler(), "a/#/b", 0));
    EXPECT_FALSE(station->Subscribe(inbox.handler(), "", 0));
    EXPECT_FALSE(station->Subscribe(inbox.handler(), "a", 3));
    EXPECT_FALSE(station->Subscribe(nullptr, "a", 0));
    EXPECT_FALSE(station->PublishMessage("x", "a/+", 0, 0, 0));
    EXPECT_FALSE(station->PublishMessage("x", "a", -1, 0, 0));
    EXPECT_TRUE(station->isConnected());
}

TEST_F(MqttClientTest, PublishReturnsFalseWhileTheBrokerIsDownAndSubscriptionsReturnWithIt)
{
    connect();
    Inbox& inbox = newInbox();
    ASSERT_TRUE(station->Subscribe(inbox.handler(), "/SN/cmd", 1));
    ASSERT_TRUE(peer->PublishMessage("before", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(inbox.waitForCount(1));

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
    ASSERT_TRUE(inbox.waitForCount(2));
    EXPECT_EQ(inbox.all()[1].second, "after");
}

TEST_F(MqttClientTest, AfterDisconnectNothingIsPublishedAndConnectRestoresTheSubscriptions)
{
    connect();
    Inbox& inbox = newInbox();
    ASSERT_TRUE(station->Subscribe(inbox.handler(), "/SN/cmd", 1));
    station->disconnect();
    EXPECT_FALSE(station->isConnected());
    EXPECT_FALSE(station->PublishMessage("x", "/SN/cmd", 1, 0, 1));

    ASSERT_TRUE(station->connect());
    ASSERT_TRUE(peer->PublishMessage("again", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(inbox.waitForCount(1));
    EXPECT_EQ(inbox.all()[0].second, "again");

    // Destruction does not wait for a broker that has gone away.
    broker.stop();
    auto done = std::async(std::launch::async, [&] { station.reset(); });
    ASSERT_EQ(done.wait_for(hostTestBound), std::future_status::ready);
}

TEST(MqttClientStart, ConnectGivesUpInTimeWhenNoBrokerRunsAndTheLinkComesUpLater)
{
    MosquittoBroker broker;
    Inbox inbox;
    vlm::PahoMqttClient station(optionsFor(broker));
    ASSERT_TRUE(station.Subscribe(inbox.handler(), "/SN/cmd", 0));
    EXPECT_FALSE(station.PublishMessage("x", "/SN/cmd", 0, 0, 0));

    auto attempt = std::async(std::launch::async, [&] { return station.connect(); });
    ASSERT_EQ(attempt.wait_for(hostTestBound), std::future_status::ready);
    EXPECT_FALSE(attempt.get());
    EXPECT_FALSE(station.isConnected());

    broker.start();
    ASSERT_TRUE(station.waitUntilReady(hostTestBound));
    vlm::PahoMqttClient peer(optionsFor(broker));
    ASSERT_TRUE(peer.connect());
    ASSERT_TRUE(peer.PublishMessage("late", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(inbox.waitForCount(1));
}

TEST(MqttClientCredentials, TheBrokerLetsInTheRightUserAndRefusesOthers)
{
    MosquittoBroker::Options login;
    login.userName = "hangarInside";
    login.password = "tepid@brkr";
    MosquittoBroker broker(login);
    broker.start();
    auto options = optionsFor(broker);

    vlm::test::LogCapture log;
    options.userName = "hangarInside";
    options.password = "tepid@brkr";
    vlm::PahoMqttClient right(options);
    options.password = "tepid919";
    vlm::PahoMqttClient wrong(options);
    options.userName.clear();
    options.password.clear();
    vlm::PahoMqttClient anonymous(options);

    auto rightUp = std::async(std::launch::async, [&] { return right.connect(); });
    auto wrongUp = std::async(std::launch::async, [&] { return wrong.connect(); });
    auto anonymousUp = std::async(std::launch::async, [&] { return anonymous.connect(); });
    EXPECT_TRUE(rightUp.get()) << broker.output();
    EXPECT_FALSE(wrongUp.get());
    EXPECT_FALSE(anonymousUp.get());

    EXPECT_TRUE(right.isConnected());
    EXPECT_FALSE(wrong.isConnected());
    EXPECT_FALSE(wrong.PublishMessage("x", "/a", 0, 0, 0));
    EXPECT_TRUE(log.contains("mqtt connect to tcp://" + broker.hostPort() + " failed"));
}

} // namespace
