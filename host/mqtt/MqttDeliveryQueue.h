#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <mqtt/message.h>

#include "MqttClient.h"

namespace vlm {

/// Hands arriving MQTT messages to their handlers on a small fixed set of
/// threads of its own, so the library's network thread never waits for a
/// handler.
///
/// A topic is always served by the same thread, so the messages of one topic
/// reach the handlers in arrival order; a handler that blocks holds up only
/// the topics of its thread. The messages waiting for a thread are bounded in
/// count and in bytes (topic plus payload) over all threads; a message that
/// does not fit is dropped, counted and logged once per burst.
///
/// The handlers of a message are looked up when its delivery starts, so a
/// handler removed before that never sees it. Handlers run outside every lock
/// of this class; an exception from one is logged and the next still runs.
///
/// All members are safe from any thread.
class MqttDeliveryQueue {
public:
    struct Limits {
        std::size_t threads = 4;
        std::size_t maxMessages = 1000;
        std::size_t maxBytes = 16 * 1048576;
    };
    struct Counters {
        std::uint64_t delivered = 0;  // messages whose handlers have all run
        std::uint64_t dropped = 0;    // messages refused because the queue was full
        std::uint64_t depth = 0;      // messages waiting now
        std::uint64_t depthBytes = 0;
    };
    /// The handlers of a topic, in order. Runs on a delivery thread; it must
    /// return quickly and is never called once close() has begun.
    using Resolver = std::function<std::vector<MqttClient::MessageHandler>(const std::string& topic)>;

    MqttDeliveryQueue(Limits limits, Resolver resolver);
    /// close() with a bound of 5 s.
    ~MqttDeliveryQueue();
    MqttDeliveryQueue(const MqttDeliveryQueue&) = delete;
    MqttDeliveryQueue& operator=(const MqttDeliveryQueue&) = delete;

    /// Queues a message for its topic's thread. Returns false when it was
    /// dropped (queue full or closing). Never blocks on a handler.
    bool push(mqtt::const_message_ptr message);

    /// Waits, at most `bound`, until every delivery that had begun when it was
    /// called has finished. Returns whether they did. Not from a handler.
    bool waitForRunning(std::chrono::milliseconds bound);

    /// Drops what is queued, waits at most `bound` for running deliveries and
    /// ends the threads. A thread whose handler does not return in time (or
    /// the caller's own thread, when called from a handler) is left to finish
    /// by itself; it touches nothing of the owner's after its handler returns.
    void close(std::chrono::milliseconds bound);

    Counters counters() const;

    /// Whether the calling thread is a delivery thread of any queue.
    static bool onDeliveryThread();

private:
    struct State;
    static void serve(std::shared_ptr<State> state, std::size_t lane);
    std::shared_ptr<State> state;
};

} // namespace vlm
