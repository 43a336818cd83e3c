#pragma once

// A ground app or cloud client that sends requests over MQTT and times
// their answers: each request carries a unique msgId, and the first
// message with that msgId and "type":"response" answers it.

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "e2e/MqttProbe.h"

namespace vlm::bench {

class MqttRoundTrip {
public:
    struct Answer {
        std::string topic;  ///< where the answer arrived
        std::string payload;
        double ms = 0;      ///< from just before the publish to its arrival
    };

    /// Connects (MQTT 5, without its own publications coming back).
    MqttRoundTrip(const std::string& uri, const std::string& clientId);

    void subscribe(const std::string& topic);

    /// Publishes `payload` on `topic` as the request `msgId` and starts its clock.
    void send(const std::string& topic, const std::string& payload, const std::string& msgId);

    /// The answer to `msgId`, or nothing when none came within `timeout`.
    /// Forgets the request either way.
    std::optional<Answer> await(const std::string& msgId, std::chrono::milliseconds timeout);

    /// Answers with a msgId that is not all digits (the plug-in numbers its
    /// events that way) that matched no waiting request: late, repeated or
    /// foreign ones.
    std::uint64_t unmatched();

private:
    struct Pending {
        std::chrono::steady_clock::time_point sent;
        std::optional<Answer> answer;
    };

    void arrived(const e2e::MqttProbe::Message& message);

    std::mutex mutex;  // guards pending and stray
    std::condition_variable answered;
    std::map<std::string, Pending> pending;
    std::uint64_t stray = 0;
    e2e::MqttProbe probe;  // last: its callback uses the members above
};

/// The text of `"key":"..."` in a JSON text, or "" when it has none.
std::string textAfterKey(const std::string& text, const std::string& key);

} // namespace vlm::bench
