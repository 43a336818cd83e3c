#pragma once

// An in-process simulator on loopback; real RPC clients whose events, and its log lines, are recorded.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <Poco/JSON/Parser.h>

#include "rpc/rpc_client.h"
#include "simulator.h"

namespace pilot_sim::test {

using namespace std::chrono_literals;

inline Poco::JSON::Object::Ptr parse_object(const std::string& text)
{
    return Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
}

/// (topic, text) pairs from any thread in arrival order; log lines under "log".
class event_recorder {
public:
    void add(const std::string& topic, std::string_view data)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        all_.emplace_back(topic, data);
        changed_.notify_all();
    }
    void subscribe(pilot_rpc::rpc_client& client, const std::string& topic)
    {
        client.subscribe(topic, [this, topic](std::string_view data) { add(topic, data); });
    }
    /// Texts of `topic` (containing `part`) once there are `count` of them or 3 s are over;
    /// "*": every event as "topic=text".
    std::vector<std::string> of(const std::string& topic, std::size_t count = 0, const std::string& part = "")
    {
        std::vector<std::string> texts;
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, 3s, [&] {
            texts.clear();
            for (const auto& [t, data] : all_)
                if (topic == "*" && t != "log")
                    texts.push_back(t + "=" + data);
                else if (t == topic && data.find(part) != std::string::npos)
                    texts.push_back(data);
            return texts.size() >= count;
        });
        return texts;
    }
private:
    std::mutex mutex_;  ///< guards all_
    std::condition_variable changed_;
    std::vector<std::pair<std::string, std::string>> all_;
};

class sim_fixture : public ::testing::Test {
protected:
    simulator_options quick_options()
    {
        simulator_options o;
        o.telemetry_hz = 0.0;
        o.announce_delay = o.progress_step = o.result_delay = 20ms;
        o.log = [this](const std::string& line) { events.add("log", line); };
        return o;
    }
    void start(simulator_options options)
    {
        sim = std::make_unique<simulator>(std::move(options));
        port = sim->start();
    }
    std::unique_ptr<pilot_rpc::rpc_client> connected_client()
    {
        auto client = std::make_unique<pilot_rpc::rpc_client>();
        EXPECT_TRUE(client->connect("127.0.0.1", port, false, 3));
        return client;
    }
    /// Frames of a connection are handled in order: the answer proves the subscriptions arrived.
    std::unique_ptr<pilot_rpc::rpc_client> subscriber_to(std::initializer_list<const char*> topics)
    {
        auto client = connected_client();
        for (const char* topic : topics)
            events.subscribe(*client, topic);
        client->call<3000, int>("getIntConfig", std::string("station.app_type"));
        return client;
    }
    Poco::JSON::Object::Ptr forward(pilot_rpc::rpc_client& client, const std::string& procedure,
                                    const std::string& request, const std::string& api)
    {
        return parse_object(client.call<3000, std::string>(procedure, request, api));
    }
    static int code(const Poco::JSON::Object::Ptr& answer) { return answer->getObject("message")->getValue<int>("code"); }

    event_recorder events;
    std::unique_ptr<simulator> sim;
    unsigned short port = 0;
};

}  // namespace pilot_sim::test
