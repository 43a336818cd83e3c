#pragma once

// A real mosquitto with two clients on it: the station under test and a peer
// that publishes to it, plus the inboxes and gates handlers use.

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "host/HostTestSupport.h"
#include "mqtt/PahoMqttClient.h"
#include "support/MosquittoBroker.h"

namespace vlm::test {

/// A gate a handler waits at until the test opens it (bounded).
class Gate {
public:
    void open() { std::call_once(once, [this] { opener.set_value(); }); }
    bool wait() { return opened.wait_for(hostTestBound) == std::future_status::ready; }

private:
    std::once_flag once;
    std::promise<void> opener;
    std::shared_future<void> opened = opener.get_future().share();
};

/// Messages one handler received, in order.
class Inbox {
public:
    vlm::MqttClient::MessageHandler handler()
    {
        // Notified under the lock: a test that has seen its last message may
        // destroy the inbox as soon as it can take the lock again.
        return [this](const std::string& topic, const std::string& payload) {
            std::lock_guard<std::mutex> lock(mutex);
            messages.emplace_back(topic, payload);
            arrived.notify_all();
        };
    }
    bool waitForCount(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, hostTestBound, [&] { return messages.size() >= count; });
    }
    std::vector<std::pair<std::string, std::string>> all()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }

private:
    std::mutex mutex;  // guards messages
    std::condition_variable arrived;
    std::vector<std::pair<std::string, std::string>> messages;
};

/// Client settings for `broker` that reconnect quickly.
inline vlm::MqttClientOptions optionsFor(const MosquittoBroker& broker)
{
    vlm::MqttClientOptions options;
    options.serverUri = broker.hostPort();
    options.stationSerial = "SN-TEST-1";
    options.reconnectMinDelay = std::chrono::milliseconds(50);
    options.reconnectMaxDelay = std::chrono::milliseconds(400);
    return options;
}

class MqttPeersTest : public ::testing::Test {
protected:
    void SetUp() override { broker.start(); }
    void TearDown() override
    {
        for (auto& gate : gates)
            gate->open();
    }

    /// Connects a station with `adjust` applied and a peer, together: the
    /// library notices a new connection only after polling the idle ones.
    void connect(const std::function<void(vlm::MqttClientOptions&)>& adjust = {})
    {
        auto options = optionsFor(broker);
        if (adjust)
            adjust(options);
        station = std::make_unique<vlm::PahoMqttClient>(options);
        peer = std::make_unique<vlm::PahoMqttClient>(optionsFor(broker));
        auto a = std::async(std::launch::async, [&] { return station->connect(); });
        ASSERT_TRUE(peer->connect() && a.get()) << broker.output();
    }

    /// An inbox that outlives both clients.
    Inbox& newInbox() { return inboxes.emplace_back(); }
    /// A gate that is opened at the latest when the test ends, before the clients go.
    std::shared_ptr<Gate> newGate() { return gates.emplace_back(std::make_shared<Gate>()); }

    /// Subscribes a station handler on `topic` that waits at `gate`; returns
    /// once the peer's first message has it waiting.
    void holdHandlerAt(const std::shared_ptr<Gate>& gate, const std::string& topic = "/SN/cmd")
    {
        auto entered = std::make_shared<std::promise<void>>();
        auto once = std::make_shared<std::once_flag>();
        ASSERT_TRUE(station->Subscribe(
            [gate, entered, once](const std::string&, const std::string&) {
                std::call_once(*once, [&] { entered->set_value(); });
                gate->wait();
            },
            topic, 0));
        ASSERT_TRUE(peer->PublishMessage("hold", topic, 1, 0, 2));
        ASSERT_EQ(entered->get_future().wait_for(hostTestBound), std::future_status::ready);
    }

    MosquittoBroker broker;
    std::deque<Inbox> inboxes;
    std::vector<std::shared_ptr<Gate>> gates;
    std::unique_ptr<vlm::PahoMqttClient> station;  // declared after the inboxes: goes first
    std::unique_ptr<vlm::PahoMqttClient> peer;
};

} // namespace vlm::test
