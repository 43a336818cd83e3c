#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <mqtt/async_client.h>

namespace vlm::e2e {

/// A ground app or cloud service as a test plays it: a plain Paho client that
/// subscribes, publishes and collects what arrives. Every wait is bounded.
class MqttProbe {
public:
    struct Message {
        std::string topic;
        std::string payload;
    };

    /// Connects; throws std::runtime_error when the broker does not accept within a few seconds.
    MqttProbe(const std::string& uri, const std::string& clientId);
    /// The same, but every message goes to `onMessage` (on Paho's thread)
    /// instead of being kept for waitFor/count. With `ignoreOwn` the client
    /// speaks MQTT 5 and does not get what it published itself: a driver
    /// bursting on the topic its answers come back on reads only the answers,
    /// and the broker does not drop QoS 0 answers while it lags on its own echo.
    MqttProbe(const std::string& uri, const std::string& clientId, std::function<void(const Message&)> onMessage,
              bool ignoreOwn = false);
    ~MqttProbe();

    void subscribe(const std::string& topic, int qos = 0);

    /// QoS 0, waited for; throws when it was not written.
    void publish(const std::string& topic, const std::string& payload);

    /// The first message since construction or clear() that `match` accepts, waited for.
    std::optional<Message> waitFor(const std::function<bool(const Message&)>& match,
                                   std::chrono::milliseconds timeout);

    /// How many messages `match` accepts right now, visited in arrival order.
    std::size_t count(const std::function<bool(const Message&)>& match);

    void clear();

private:
    const std::function<void(const Message&)> onMessage;
    const bool ignoreOwn;
    mqtt::async_client client;
    std::mutex mutex;  // guards received
    std::condition_variable arrived;
    std::vector<Message> received;
};

/// Whether the payload is a JSON object whose `key` is the text `value`.
bool hasText(const std::string& payload, const std::string& key, const std::string& value);

} // namespace vlm::e2e
