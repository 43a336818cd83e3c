#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include <Poco/JSON/Parser.h>

#include "PilotControlPTestAccess.h"
#include "RecordingMqttClient.h"
#include "ScriptedService.h"
#include "ThreadPool.h"
#include "VelmoraCommon.h"
#include "http/HttpApiServer.h"
#include "mqtt/PahoMqttClient.h"
#include "support/MosquittoBroker.h"
#include "support/PollUntil.h"

namespace vlm::test {

/// Polls `condition` every 10 ms until it holds or `limit` has passed.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(5))
{
    return pollUntil(condition, limit);
}

/// A ground application on the test's broker: publishes, and keeps what arrives.
class GroundApp {
public:
    using Match = std::function<bool(const std::string& topic, const std::string& payload)>;

    GroundApp(MqttClientOptions options, const std::vector<std::string>& topics) : client(std::move(options))
    {
        EXPECT_TRUE(client.connect());
        for (const auto& topic : topics)
            EXPECT_TRUE(client.Subscribe(
                [this](const std::string& t, const std::string& payload) {
                    std::lock_guard<std::mutex> lock(mutex);
                    received.emplace_back(t, payload);
                    arrived.notify_all();
                },
                topic, 0));
    }

    void command(const std::string& topic, const std::string& payload, int waitSeconds = 1)
    {
        ASSERT_TRUE(client.PublishMessage(payload, topic, 0, 0, waitSeconds));
    }

    int count(const Match& match)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return countLocked(match);
    }

    bool waitFor(const Match& match, int n = 1, std::chrono::milliseconds limit = std::chrono::seconds(8))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, limit, [&] { return countLocked(match) >= n; });
    }

    /// The text of the first answer (a "response" with that msgId) on
    /// `topic`, or "" when none came in time. Texts above a megabyte are no
    /// answer: they are the big commands themselves, echoed by the broker.
    std::string answerText(const std::string& topic, const std::string& msgId,
                           std::chrono::milliseconds limit = std::chrono::seconds(8))
    {
        std::string found;
        const std::string id = R"("msgId":")" + msgId + '"';
        waitFor(
            [&](const std::string& t, const std::string& payload) {
                if (t != topic || payload.size() > (1u << 20) || payload.find(id) == std::string::npos ||
                    payload.find(R"("type":"response")") == std::string::npos)
                    return false;
                found = found.empty() ? payload : found;
                return true;
            },
            1, limit);
        return found;
    }

    Poco::JSON::Object::Ptr answerTo(const std::string& topic, const std::string& msgId,
                                     std::chrono::milliseconds limit = std::chrono::seconds(8))
    {
        const std::string text = answerText(topic, msgId, limit);
        return text.empty() ? nullptr : Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
    }

private:
    int countLocked(const Match& match)
    {
        return static_cast<int>(std::count_if(received.begin(), received.end(),
                                              [&](const auto& m) { return match(m.first, m.second); }));
    }

    std::mutex mutex;  // guards received
    std::condition_variable arrived;
    std::vector<std::pair<std::string, std::string>> received;
    PahoMqttClient client;  // last: its delivery thread ends before the members it fills
};

/// The plug-in started as the host starts it, on the real HTTP server and MQTT
/// client, a broker of the test's own and a scripted micro service.
class FrontsFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        broker.start();
        for (const char* key : {"mqtt.server_uri", "mqtt.user_name", "mqtt.pawsswd"})
            vlm::configInstance().setString(key, key == std::string("mqtt.server_uri") ? broker.hostPort() : "");
        server->start();
        mqtt = std::make_shared<PahoMqttClient>(stationClientOptions());
        ASSERT_TRUE(mqtt->connect());
        // Set before start, as a host does; shared, the recorder outlives a late delivery.
        plugin->setCallback([bus = bus](std::string text) { bus->callback()(std::move(text)); });
        plugin->start(server, mqtt, "127.0.0.1", service.port);
        // An event published before the last subscription arrived would be lost.
        ASSERT_TRUE(service.service.wait_for_subscriber("vehicleOnlineStatus", std::chrono::seconds(10)));
    }

    void TearDown() override
    {
        plugin->stop();
        server->stop();
        ThreadPool::defaultPool().joinAll();
        EXPECT_TRUE(PilotControlPTestAccess::drainOutbound(*plugin, std::chrono::seconds(10)));
    }

    MqttClientOptions groundOptions()
    {
        MqttClientOptions options;
        options.serverUri = broker.hostPort();
        return options;
    }

    virtual MqttClientOptions stationClientOptions()
    {
        MqttClientOptions options = groundOptions();
        options.stationSerial = "station-1";
        options.reconnectMinDelay = std::chrono::milliseconds(200);
        return options;
    }

    PilotControlPImpl& state() { return PilotControlPTestAccess::impl(*plugin); }

    /// Reports the vehicle (dis)connected as the service does; waits until the plug-in knows.
    void vehicleConnected(bool connected)
    {
        service.service.publish("pilotConnectState", connected ? "true" : "false");
        eventually([&] { return state().pilotConnected == connected; });
        ASSERT_EQ(state().pilotConnected.load(), connected);
    }

    MosquittoBroker broker;
    ScriptedService service;
    std::shared_ptr<HttpApiServer> server = std::make_shared<HttpApiServer>();
    std::shared_ptr<PahoMqttClient> mqtt;
    std::shared_ptr<PilotControlP> plugin = PilotControlP::createInstance();
    std::shared_ptr<BusRecorder> bus = std::make_shared<BusRecorder>();
};

} // namespace vlm::test
