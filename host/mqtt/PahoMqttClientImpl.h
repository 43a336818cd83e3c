#pragma once

// Private state of PahoMqttClient, shared by its two source files: link keeping
// (PahoMqttLink.cpp) and subscriptions, delivery and publishing
// (PahoMqttClient.cpp).

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Logger.h>
#include <mqtt/async_client.h>

#include "mqtt/MqttBurstLog.h"
#include "mqtt/MqttDeliveryQueue.h"
#include "mqtt/PahoMqttClient.h"

namespace vlm {

struct PahoMqttClient::Impl {
    /// One recorded topic filter with its handlers in the order they were added.
    struct Subscription {
        std::string filter;
        int qos = 0;
        std::vector<MessageHandler> handlers;
    };

    explicit Impl(MqttClientOptions options);

    // Link keeping, PahoMqttLink.cpp.
    void startKeeping();
    bool waitForAttemptOutcome();
    void stopKeeping();
    void keepLink();
    bool attemptConnect(bool quiet);
    /// What a TLS link asks of the broker's certificate, for failure logs.
    std::string tlsRequirement() const;
    void restoreSubscriptions();
    void onConnectionLost(const std::string& cause);

    // Subscriptions and delivery, PahoMqttClient.cpp.
    void onMessage(const mqtt::const_message_ptr& message);
    std::vector<MessageHandler> handlersFor(const std::string& topic);
    void warnAboutLinkSecurity();
    void subscribeAtBroker(const std::string& filter, int qos, bool wait);
    void unsubscribeAtBroker(const std::string& filter, bool wait);

    /// Every callback from the library runs between these two; enterCallback()
    /// returns false once closed, and the callback must then return at once.
    bool enterCallback();
    void leaveCallback();
    /// Waits (operationTimeout at most) until the callbacks that had started
    /// when it was called have finished.
    void waitForRunningCallbacks();
    /// Drops every later callback and waits for running ones; before the
    /// library client and this state are destroyed.
    void closeCallbacks();

    /// Whether the calling thread is a delivery thread of any client, which is
    /// where every message handler runs.
    static bool onDeliveryThread();

    const MqttClientOptions options;
    const std::string uri;
    Poco::Logger& logger;
    mqtt::connect_options connectOptions;
    mqtt::async_client client;

    /// Whether the link is up; written by the keeper and the library's
    /// connection-lost callback, read anywhere.
    std::atomic<bool> linkUp{false};
    /// Bumped by every connection loss, so the keeper notices a loss that
    /// happened between the broker's accept and its own bookkeeping.
    std::atomic<std::uint64_t> linkLosses{0};

    std::mutex linkMutex;  // guards keeping, ready, attemptsFinished and keeper
    std::condition_variable linkChanged;
    bool keeping = false;
    bool ready = false;  // link up and every subscription restored
    std::uint64_t attemptsFinished = 0;
    std::thread keeper;

    std::mutex subscriptionsMutex;  // guards subscriptions
    std::vector<Subscription> subscriptions;

    std::mutex callbackMutex;  // guards callbacksStarted, callbacksFinished and closed
    std::condition_variable callbackFinished;
    std::uint64_t callbacksStarted = 0;
    std::uint64_t callbacksFinished = 0;
    bool closed = false;  // set on destruction: later callbacks return at once

    std::atomic<std::uint64_t> oversizeRefused{0};
    std::atomic<std::uint64_t> published{0};       // publications handed to the library
    std::atomic<std::uint64_t> publishFailures{0};  // refused, link down, failed or not completed in time
    std::mutex burstLogMutex;  // guards oversizeLog
    MqttBurstLog oversizeLog;

    /// Runs the handlers; last, so that its threads end before the state above.
    MqttDeliveryQueue delivery;
};

} // namespace vlm
