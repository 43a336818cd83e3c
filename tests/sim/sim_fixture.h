#pragma once

// Shared set-up of the simulator tests: an in-process simulator on a
// kernel-chosen loopback port with short event intervals, its log lines,
// and real RPC clients that record what they receive. Waits are bounded.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "rpc/rpc_client.h"
#include "simulator.h"
#include "support/RestartablePort.h"

namespace pilot_sim::test {

using namespace std::chrono_literals;

inline Poco::JSON::Object::Ptr parse_object(const std::string& text)
{
    return Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
}

/// Text lines from any thread, with a bounded wait for one that contains a text.
class line_log {
public:
    void add(const std::string& line)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        }
        changed_.notify_all();
    }

    bool wait_for(const std::string& part, std::chrono::milliseconds timeout = 3s)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            for (const auto& line : lines_)
                if (line.find(part) != std::string::npos)
                    return true;
            return false;
        });
    }

private:
    std::mutex mutex_;  ///< guards lines_
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

/// Publications a client received, by topic, in arrival order.
class event_recorder {
public:
    /// Subscribes `client` to `topic`; its events are recorded here. The
    /// recorder must outlive the client.
    void subscribe(pilot_rpc::rpc_client& client, const std::string& topic)
    {
        client.subscribe(topic, [this, topic](std::string_view data) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                events_[topic].emplace_back(data);
                order_.push_back(topic);
            }
            changed_.notify_all();
        });
    }

    std::vector<std::string> of(const std::string& topic)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_[topic];
    }

    /// Topics of every event, in arrival order.
    std::vector<std::string> order()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return order_;
    }

    bool wait_for_count(const std::string& topic, std::size_t count, std::chrono::milliseconds timeout = 3s)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return events_[topic].size() >= count; });
    }

private:
    std::mutex mutex_;  ///< guards events_
    std::condition_variable changed_;
    std::map<std::string, std::vector<std::string>> events_;
    std::vector<std::string> order_;
};

class sim_fixture : public ::testing::Test {
protected:
    /// Intervals short enough for tests; no telemetry unless a test asks.
    simulator_options quick_options()
    {
        simulator_options o;
        o.telemetry_hz = 0.0;
        o.announce_delay = 20ms;
        o.progress_step = 20ms;
        o.result_delay = 20ms;
        o.log = [this](const std::string& line) { logs.add(line); };
        return o;
    }

    void start(simulator_options options)
    {
        sim = std::make_unique<simulator>(std::move(options));
        port = sim->start();
    }

    /// Starts (or starts again) on a port no other socket is handed while the
    /// simulator lets it go. Another test may pick the same one: a few tries.
    void start_on_restartable_port(const simulator_options& options)
    {
        for (int attempt = 1;; ++attempt) {
            simulator_options o = options;
            o.port = static_cast<unsigned short>(vlm::test::pickRestartablePort());
            try {
                sim.reset();
                start(std::move(o));
                return;
            } catch (const std::system_error&) {
                if (attempt == 3)
                    throw;
            }
        }
    }

    std::unique_ptr<pilot_rpc::rpc_client> connected_client()
    {
        auto client = std::make_unique<pilot_rpc::rpc_client>();
        EXPECT_TRUE(client->connect("127.0.0.1", port, false, 3));
        return client;
    }

    /// A client subscribed to `topics`, returned once the simulator has them:
    /// a connection's frames are handled in order, so the answer to a call
    /// sent after them proves they arrived.
    std::unique_ptr<pilot_rpc::rpc_client> subscriber_to(std::initializer_list<const char*> topics)
    {
        auto client = connected_client();
        for (const char* topic : topics)
            events.subscribe(*client, topic);
        client->call<3000, int>("getIntConfig", std::string("station.app_type"));
        return client;
    }

    line_log logs;
    event_recorder events;
    std::unique_ptr<simulator> sim;
    unsigned short port = 0;
};

}  // namespace pilot_sim::test
