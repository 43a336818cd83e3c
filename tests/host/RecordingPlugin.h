#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PluginBase.h"

namespace vlm::test {

/// A plug-in that records what the bus hands it, and on which thread; it can
/// answer each message through its own bus callback. Thread-safe.
class RecordingPlugin : public PluginBase {
public:
    struct Delivery {
        std::string text;
        std::thread::id thread;
    };

    /// What to post back on the bus for each delivery ("" posts nothing).
    std::function<std::string(const std::string&)> answer;

    void stop() override {}

    void pushMessage(std::string message) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            deliveries.push_back({message, std::this_thread::get_id()});
        }
        const std::string reply = answer ? answer(message) : "";
        if (!reply.empty() && callback)
            callback(reply);
    }

    std::vector<Delivery> received()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return deliveries;
    }

private:
    std::mutex mutex;  // guards deliveries
    std::vector<Delivery> deliveries;
};

} // namespace vlm::test
