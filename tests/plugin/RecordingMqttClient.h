#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "MqttClient.h"

namespace vlm::test {

/// An MqttClient that records what the plug-in asks of it. The broker path is
/// tested with the real client elsewhere; here only the plug-in's side counts.
class RecordingMqttClient : public MqttClient {
public:
    struct Publication {
        std::string payload;
        std::string topic;
        int qos;
        int retained;
        int waitSeconds;
    };

    explicit RecordingMqttClient(std::string station = "") : station(std::move(station)) {}

    std::string getstation() override { return station; }
    bool isConnected() const override { return publishSucceeds; }

    bool Subscribe(MessageHandler handler, const std::string& topic, int) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        subscriptions.emplace_back(topic, std::move(handler));
        return true;
    }

    bool Unsubscribe(const std::string& topic) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        unsubscribed.push_back(topic);
        return true;
    }

    bool PublishMessage(const std::string& payload, const std::string& topic, int qos, int retained,
                        int waitSeconds) override
    {
        if (beforePublish)
            beforePublish(payload);
        {
            std::lock_guard<std::mutex> lock(mutex);
            published.push_back({payload, topic, qos, retained, waitSeconds});
        }
        changed.notify_all();
        return publishSucceeds;
    }

    void deliver(const std::string& topic, const std::string& payload)
    {
        std::vector<MessageHandler> handlers;
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (const auto& [subscribed, handler] : subscriptions)
                if (subscribed == topic)
                    handlers.push_back(handler);
        }
        for (auto& h : handlers)
            h(topic, payload);
    }

    std::vector<Publication> publications() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return published;
    }
    std::vector<std::string> subscribedTopics() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> topics;
        for (const auto& s : subscriptions)
            topics.push_back(s.first);
        return topics;
    }
    std::vector<std::string> unsubscribedTopics() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return unsubscribed;
    }

    bool waitFor(const std::function<bool(const Publication&)>& match, size_t count = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(5)) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] {
            size_t n = 0;
            for (const auto& p : published)
                n += match(p) ? 1 : 0;
            return n >= count;
        });
    }

    std::atomic<bool> publishSucceeds{true};
    /// Runs first in every publication, unlocked: a test may block there. Set before use.
    std::function<void(const std::string& payload)> beforePublish;

private:
    const std::string station;
    mutable std::mutex mutex;  // guards subscriptions, unsubscribed, published
    mutable std::condition_variable changed;
    std::vector<std::pair<std::string, MessageHandler>> subscriptions;
    std::vector<std::string> unsubscribed;
    std::vector<Publication> published;
};

/// Records what the plug-in hands to the host bus.
class BusRecorder {
public:
    std::function<void(std::string)> callback()
    {
        return [this](std::string text) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                messages.push_back(std::move(text));
            }
            changed.notify_all();
        };
    }
    std::vector<std::string> all() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }
    bool waitForCount(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5)) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return messages.size() >= count; });
    }

private:
    mutable std::mutex mutex;  // guards messages
    mutable std::condition_variable changed;
    std::vector<std::string> messages;
};

} // namespace vlm::test
