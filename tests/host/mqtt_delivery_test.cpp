// How the MQTT client hands messages to handlers, against a real mosquitto:
// the size bound at intake, delivery threads that leave the link alone, the
// bounded queue, and the guarantees of Unsubscribe and destruction.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mqtt/PahoMqttClient.h"
#include "support/LogCapture.h"
#include "support/MosquittoBroker.h"

namespace {

using namespace std::chrono_literals;
using vlm::test::LogCapture;
using vlm::test::MosquittoBroker;

const auto bound = std::chrono::milliseconds(10000);

/// A gate a handler waits at until the test opens it (bounded).
class Gate {
public:
    void open()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            opened = true;
        }
        changed.notify_all();
    }
    bool wait(std::chrono::milliseconds timeout = bound)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return opened; });
    }

private:
    std::mutex mutex;  // guards opened
    std::condition_variable changed;
    bool opened = false;
};

/// Payloads one handler received, in order.
class Inbox {
public:
    vlm::MqttClient::MessageHandler handler()
    {
        // Notified under the lock: a test that has seen its last payload may
        // destroy the inbox as soon as it can take the lock again, while the
        // client that delivered it lives on.
        return [this](const std::string&, const std::string& payload) {
            std::lock_guard<std::mutex> lock(mutex);
            payloads.push_back(payload);
            arrived.notify_all();
        };
    }
    bool waitForCount(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, bound, [&] { return payloads.size() >= count; });
    }
    std::vector<std::string> all()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return payloads;
    }

private:
    std::mutex mutex;  // guards payloads
    std::condition_variable arrived;
    std::vector<std::string> payloads;
};

bool eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

int linesContaining(const LogCapture& log, const std::string& part)
{
    int n = 0;
    for (const auto& line : log.lines())
        n += line.text.find(part) != std::string::npos;
    return n;
}

class MqttDelivery : public ::testing::Test {
protected:
    void SetUp() override { broker.start(); }

    /// A station client with `adjust` applied and a peer that publishes to it.
    void connect(const std::function<void(vlm::MqttClientOptions&)>& adjust = {})
    {
        vlm::MqttClientOptions options;
        options.serverUri = broker.hostPort();
        options.reconnectMinDelay = 100ms;
        if (adjust)
            adjust(options);
        station = std::make_unique<vlm::PahoMqttClient>(options);
        vlm::MqttClientOptions peerOptions;
        peerOptions.serverUri = broker.hostPort();
        peer = std::make_unique<vlm::PahoMqttClient>(peerOptions);
        auto a = std::async(std::launch::async, [&] { return station->connect(); });
        auto b = std::async(std::launch::async, [&] { return peer->connect(); });
        ASSERT_TRUE(a.get() && b.get()) << broker.output();
    }

    void TearDown() override
    {
        for (auto& gate : gates)
            gate->open();
        station.reset();
        peer.reset();
    }

    /// A gate that is opened at the latest when the test ends.
    std::shared_ptr<Gate> newGate() { return gates.emplace_back(std::make_shared<Gate>()); }

    MosquittoBroker broker;
    std::vector<std::shared_ptr<Gate>> gates;
    std::unique_ptr<vlm::PahoMqttClient> station;
    std::unique_ptr<vlm::PahoMqttClient> peer;
};

TEST_F(MqttDelivery, MessagesAboveTheSizeBoundNeverReachAHandlerAndABurstIsLoggedOnce)
{
    connect([](vlm::MqttClientOptions& o) { o.maxPayloadBytes = 1024; });
    LogCapture log;
    Inbox inbox;
    ASSERT_TRUE(station->Subscribe(inbox.handler(), "/SN/cmd", 1));
    ASSERT_TRUE(peer->PublishMessage(std::string(1024, 'a'), "/SN/cmd", 1, 0, 2));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(peer->PublishMessage(std::string(1025 + i, 'b'), "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(peer->PublishMessage("end", "/SN/cmd", 1, 0, 2));
    ASSERT_TRUE(inbox.waitForCount(2));

    EXPECT_EQ(inbox.all(), (std::vector<std::string>{std::string(1024, 'a'), "end"}));
    // Counted once the handler has returned.
    ASSERT_TRUE(eventually([&] { return station->counters().delivered == 2; }));
    const auto counters = station->counters();
    EXPECT_EQ(counters.oversizeRefused, 5u);
    EXPECT_EQ(counters.delivered, 2u);
    EXPECT_EQ(linesContaining(log, "mqtt message on /SN/cmd refused: 1025 bytes, above mqtt.max_payload_bytes (1024)"),
              1);
    EXPECT_EQ(linesContaining(log, "refused"), 1);
}

TEST_F(MqttDelivery, ABlockedHandlerLeavesTheLinkWorkingAndOneTopicKeepsItsOrder)
{
    connect();
    auto gate = newGate();
    std::promise<void> entered;
    ASSERT_TRUE(station->Subscribe(
        [gate, &entered](const std::string&, const std::string&) {
            entered.set_value();
            gate->wait();
        },
        "/SN/blocked", 0));
    Inbox ordered;
    ASSERT_TRUE(station->Subscribe(ordered.handler(), "/SN/ordered", 1));

    ASSERT_TRUE(peer->PublishMessage("hold", "/SN/blocked", 1, 0, 2));
    ASSERT_EQ(entered.get_future().wait_for(bound), std::future_status::ready);
    // While a handler blocks, the station's own acknowledgements, which the
    // library's network thread processes, still come in.
    EXPECT_TRUE(station->PublishMessage("ack needed", "/SN/other", 2, 0, 5));
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(peer->PublishMessage(std::to_string(i), "/SN/ordered", 1, 0, 0));
    gate->open();
    ASSERT_TRUE(ordered.waitForCount(50));
    std::vector<std::string> expected;
    for (int i = 0; i < 50; ++i)
        expected.push_back(std::to_string(i));
    EXPECT_EQ(ordered.all(), expected);
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
    std::promise<void> entered;
    auto enteredOnce = std::make_shared<std::once_flag>();
    ASSERT_TRUE(station->Subscribe(
        [gate, &entered, enteredOnce](const std::string&, const std::string&) {
            std::call_once(*enteredOnce, [&] { entered.set_value(); });
            gate->wait();
        },
        "/SN/cmd", 0));
    ASSERT_TRUE(peer->PublishMessage("first", "/SN/cmd", 1, 0, 2));
    ASSERT_EQ(entered.get_future().wait_for(bound), std::future_status::ready);
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
    EXPECT_EQ(linesContaining(log, "mqtt delivery queue full (5 messages"), 1);
}

TEST_F(MqttDelivery, TheQueueIsBoundedInBytesToo)
{
    connect([](vlm::MqttClientOptions& o) {
        o.deliveryThreads = 1;
        o.deliveryQueueBytes = 1000;
    });
    auto gate = newGate();
    std::promise<void> entered;
    auto enteredOnce = std::make_shared<std::once_flag>();
    ASSERT_TRUE(station->Subscribe(
        [gate, &entered, enteredOnce](const std::string&, const std::string&) {
            std::call_once(*enteredOnce, [&] { entered.set_value(); });
            gate->wait();
        },
        "/SN/cmd", 0));
    ASSERT_TRUE(peer->PublishMessage("first", "/SN/cmd", 1, 0, 2));
    ASSERT_EQ(entered.get_future().wait_for(bound), std::future_status::ready);
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
    ASSERT_EQ(entered.get_future().wait_for(bound), std::future_status::ready);
    unsubscribing->open();
    EXPECT_TRUE(station->Unsubscribe("/SN/cmd"));
    EXPECT_TRUE(finished->load());
}

TEST_F(MqttDelivery, HandlersMayChangeSubscriptionsAndPublishWithoutDeadlock)
{
    connect();
    Inbox moved;
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
    ASSERT_EQ(result.wait_for(bound), std::future_status::ready);
    EXPECT_TRUE(result.get());
    ASSERT_TRUE(moved.waitForCount(1));
    EXPECT_EQ(moved.all()[0], "from handler");
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
    ASSERT_EQ(entered.get_future().wait_for(bound), std::future_status::ready);

    auto destroyed = std::async(std::launch::async, [&] { station.reset(); });
    ASSERT_EQ(destroyed.wait_for(bound), std::future_status::ready);
    EXPECT_TRUE(log.contains("mqtt handler still running 500 ms after close"));
    // The handler that outlived its client still finishes cleanly.
    gate->open();
    EXPECT_EQ(left->get_future().wait_for(bound), std::future_status::ready);
}

} // namespace
