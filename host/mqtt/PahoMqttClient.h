#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "MqttClient.h"
#include "VelmoraExport.h"
#include "mqtt/MqttClientOptions.h"

namespace vlm {

/// The host's MQTT client on the Paho MQTT C++ library.
///
/// Link keeping: after connect() a keeper thread owned by this object holds the
/// link up. When the broker is unreachable, refuses the login or drops the link,
/// it retries after reconnectMinDelay, doubling the pause up to
/// reconnectMaxDelay, until disconnect(). Sessions are clean, so after every
/// (re)connect the keeper subscribes every recorded topic again before it
/// reports the link ready; a plug-in subscribes once and never sees the gap.
///
/// Intake: a message larger than maxPayloadBytes is refused as it arrives,
/// before any handler sees it (counted, logged once per burst).
///
/// Delivery: the library's network thread only queues a message; a small
/// fixed set of delivery threads of this client (deliveryThreads) hands it, in
/// subscription order, to every handler whose topic filter matches. A topic
/// is always served by the same delivery thread, so its messages arrive in
/// order, and a handler that blocks never holds up the link's keep-alive. The
/// queue is bounded in count and bytes (deliveryQueueMessages,
/// deliveryQueueBytes); a message that does not fit is dropped, counted and
/// logged once per burst. Handlers run outside every lock of this class, so
/// they may call Subscribe, Unsubscribe and PublishMessage; an exception from
/// a handler is logged and the next handler still runs.
///
/// Inside a handler (on a delivery thread) calls never wait for the broker:
/// PublishMessage returns once the message is handed to the library, and
/// Subscribe/Unsubscribe once the request is sent; a handler that waited
/// would hold up every topic of its thread.
///
/// TLS ("ssl://", "mqtts://"): TLS 1.2 or later, the broker's certificate
/// chain checked against caFile (or the system's trust store) and its host
/// name against the address, unless tlsInsecure, which is logged as a warning
/// by the constructor. Credentials sent unencrypted to a broker that is not on
/// loopback are logged as a warning too.
///
/// All public members are safe to call from any thread.
class VLM_EXPORT PahoMqttClient : public MqttClient {
public:
    /// Throws std::invalid_argument when the server address cannot be used.
    explicit PahoMqttClient(MqttClientOptions options);
    /// Disconnects and ends the delivery threads; returns within the bounds of
    /// disconnect() plus operationTimeout for a handler still running.
    ~PahoMqttClient() override;
    PahoMqttClient(const PahoMqttClient&) = delete;
    PahoMqttClient& operator=(const PahoMqttClient&) = delete;

    /// Starts keeping the link and waits for the outcome of the first attempt
    /// (at most connectTimeout plus operationTimeout). Returns whether the link
    /// is ready; when it is not, retrying goes on in the background. Calling it
    /// again while the link is kept only waits for that outcome again. Not to be
    /// called from a message handler.
    bool connect();

    /// Stops keeping the link and closes it. Returns within connectTimeout plus
    /// operationTimeout even when the broker is gone. Recorded subscriptions
    /// stay and are restored by a later connect(). Not from a message handler.
    void disconnect();

    /// Waits until the link is up with every subscription restored, or the
    /// time-out has passed; returns whether it is.
    bool waitUntilReady(std::chrono::milliseconds timeout);

    /// The normalized broker URI this client connects to.
    std::string serverUri() const;

    std::string getstation() override;

    /// Records the handler under the topic filter. When the link is up and the
    /// filter is new (or asks for a higher QoS), subscribes at the broker and,
    /// outside a handler, waits for its answer (operationTimeout); a refusal
    /// is logged and retried on the next reconnect. Returns false, with a log
    /// line, for an invalid filter, an empty handler or a QoS outside 0..2.
    bool Subscribe(MessageHandler handler, const std::string& topic, int qos) override;

    /// Removes every handler of exactly this filter and unsubscribes it at the
    /// broker. Outside a handler, also waits (operationTimeout at most) until a
    /// delivery that was already running has finished, so no removed handler
    /// runs after the call returns. Returns false when the filter had none.
    bool Unsubscribe(const std::string& topic) override;

    /// Publishes with the given QoS and retain flag. When waitSeconds > 0 (and
    /// not inside a handler) waits up to that long for the broker to complete
    /// the delivery (QoS 1 or 2) or for the message to be written (QoS 0).
    /// Returns false, never throws, when the link is down, the topic or QoS is
    /// invalid, the library refuses the message or the wait runs out.
    bool PublishMessage(const std::string& payload, const std::string& topic, int qos, int retained,
                        int waitSeconds) override;

    /// Whether the link to the broker is up right now.
    bool isConnected() const override;

    /// What the intake and the delivery queue did since construction.
    struct Counters {
        std::uint64_t oversizeRefused = 0;  // messages above maxPayloadBytes
        std::uint64_t queueDrops = 0;       // messages dropped because the queue was full
        std::uint64_t delivered = 0;        // messages whose handlers have all run
        std::uint64_t queueDepth = 0;       // messages waiting for a delivery thread now
        std::uint64_t queueBytes = 0;       // their bytes
        std::uint64_t published = 0;        // publications the library took
        std::uint64_t publishFailures = 0;  // publications that failed (PublishMessage returned false)
        std::uint64_t linkLosses = 0;       // times an established link was lost
    };
    Counters counters() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace vlm
