#pragma once

#include <functional>
#include <string>

namespace vlm {

/// The host's MQTT client, shared by every plug-in of the host.
///
/// Implementations reconnect by themselves and restore every subscription after
/// a reconnect; a plug-in subscribes once and never has to look after the link.
class MqttClient {
public:
    /// Called on the client's delivery thread with the topic a message arrived
    /// on and its payload.
    using MessageHandler = std::function<void(const std::string& topic, const std::string& payload)>;

    virtual ~MqttClient() = default;

    /// The station serial number this host runs on ("" when not configured).
    virtual std::string getstation() = 0;

    /// Adds a handler for a topic (filter wildcards allowed). Several handlers on
    /// one topic are allowed; each arriving message goes to every matching one.
    /// Returns false when the subscription could not be recorded.
    virtual bool Subscribe(MessageHandler handler, const std::string& topic, int qos) = 0;

    /// Removes every handler of the topic and unsubscribes it at the broker.
    virtual bool Unsubscribe(const std::string& topic) = 0;

    /// Publishes a payload. `retained` is the MQTT retain flag; `waitSeconds`
    /// bounds how long to wait for the broker's acknowledgement (0: do not wait).
    /// Returns false, never throws, when not connected or the publish failed.
    virtual bool PublishMessage(const std::string& payload, const std::string& topic, int qos, int retained,
                                int waitSeconds) = 0;

    /// Whether the link to the broker is up right now.
    virtual bool isConnected() const = 0;
};

} // namespace vlm
