#pragma once

// What the plug-in fuzz targets share: one plug-in per process, started the
// way a host starts it against a service peer on a loopback port, with the
// vehicle reported connected, so that every input reaches the fronts with the
// RPC link up and nothing waits for a time-out.
//
// The peer and the MQTT client keep counts and the last item only: a fuzzing
// run makes millions of calls and publications, and recording them all (as
// the test doubles do) would grow without bound.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Poco/JSON/Parser.h>
#include <Poco/Logger.h>

#include "MqttClient.h"
#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "ThreadPool.h"
#include "VelmoraCommon.h"
#include "plugin/PilotControlPTestAccess.h"
#include "rpc/rpc_client.h"
#include "rpc/service/rpc_service.h"

namespace vlm::fuzz {

/// Stops the run with a crash libFuzzer reports, saving the input.
[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "fuzz check failed: %s\n", what);
    std::abort();
}

inline void check(bool holds, const char* what)
{
    if (!holds)
        fail(what);
}

/// The JSON object in `text`, or null when it is not one.
inline Poco::JSON::Object::Ptr parseObject(const std::string& text)
{
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(text);
        if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
            return parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception&) {
    }
    return nullptr;
}

/// An answer built from a bound JSON value grows by escaping at most (a byte
/// becomes "\u00XX") plus a fixed envelope; anything beyond is an echo loop.
inline std::size_t answerBound(std::size_t inputSize, std::size_t copies = 1)
{
    return copies * 6 * inputSize + 4096;
}

/// An MqttClient that counts what is published and keeps the last one.
class CountingMqttClient : public MqttClient {
public:
    struct Publication {
        std::string payload;
        std::string topic;
        int qos = 0;
    };

    explicit CountingMqttClient(std::string station) : station(std::move(station)) {}

    std::string getstation() override { return station; }
    bool isConnected() const override { return true; }
    bool Unsubscribe(const std::string&) override { return true; }

    bool Subscribe(MessageHandler handler, const std::string& topic, int) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        subscriptions.push_back({topic, std::move(handler)});
        return true;
    }

    bool PublishMessage(const std::string& payload, const std::string& topic, int qos, int, int) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++count;
            last = {payload, topic, qos};
        }
        changed.notify_all();
        return true;
    }

    /// The subscribed topics, in the order subscribed.
    std::vector<std::string> topics() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> names;
        for (const auto& s : subscriptions)
            names.push_back(s.first);
        return names;
    }

    /// Hands a message to every handler of `topic`, as the host client's
    /// delivery thread does.
    void deliver(const std::string& topic, const std::string& payload)
    {
        std::vector<MessageHandler> handlers;
        {
            std::lock_guard<std::mutex> lock(mutex);
            for (const auto& s : subscriptions)
                if (s.first == topic)
                    handlers.push_back(s.second);
        }
        for (auto& handler : handlers)
            handler(topic, payload);
    }

    std::uint64_t published() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return count;
    }

    Publication lastPublication() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return last;
    }

    /// Waits until `n` publications were made in all; false at the limit.
    bool waitForCount(std::uint64_t n, std::chrono::milliseconds limit) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return count >= n; });
    }

private:
    const std::string station;
    mutable std::mutex mutex;  // guards subscriptions, count, last
    mutable std::condition_variable changed;
    std::vector<std::pair<std::string, MessageHandler>> subscriptions;
    std::uint64_t count = 0;
    Publication last;
};

/// Counts what the plug-in hands to the host bus and keeps the last text.
class CountingBus {
public:
    std::function<void(std::string)> callback()
    {
        return [this](std::string text) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                ++count;
                last = std::move(text);
            }
            changed.notify_all();
        };
    }
    std::uint64_t received() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return count;
    }
    std::string lastText() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return last;
    }
    bool waitForCount(std::uint64_t n, std::chrono::milliseconds limit) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return count >= n; });
    }

private:
    mutable std::mutex mutex;  // guards count, last
    mutable std::condition_variable changed;
    std::uint64_t count = 0;
    std::string last;
};

/// The micro service side: settings answers, and every procedure a front
/// forwards to answered through `reply` (a real service's answer by default).
/// Counts forwarded calls and keeps the last procedure and first argument.
class FuzzService {
public:
    using Reply = std::function<std::string(const std::string& procedure, const std::string& text)>;

    explicit FuzzService(Reply reply) : reply(std::move(reply))
    {
        service.bind("getIntConfig", [](const msgpack::object&) { return pilot_rpc::service_reply::success(0); });
        service.bind("getBoolConfig",
                     [](const msgpack::object&) { return pilot_rpc::service_reply::success(false); });
        service.bind("getStringConfig",
                     [](const msgpack::object&) { return pilot_rpc::service_reply::success(std::string("UAV-1")); });
        service.bind("reportRPCSub", [](const msgpack::object&) { return pilot_rpc::service_reply::success(true); });
        for (const char* name : {"telementry", "flightControl", "firmwareUpdate", "dataPlayback", "electronicFence",
                                 "project", "multiRotor", "microService", "djiControl", "pilotControlBase"})
            bindForwarded(name);
        port = service.start(0);
    }
    ~FuzzService() { service.stop(); }

    /// Forwarded calls so far (the start's "setSelfGuid" announcement included).
    std::uint64_t forwarded() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    std::string lastProcedure() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return procedure;
    }

    /// A real service's answer: the request's api and msgId, swapped addresses, code 200.
    static std::string standardAnswer(const std::string& requestText, const std::string& api)
    {
        const Poco::JSON::Object::Ptr request = parseObject(requestText);
        Poco::JSON::Object answer(Poco::JSON_PRESERVE_KEY_ORDER);
        answer.set("api", api);
        answer.set("type", "response");
        answer.set("from", request->get("target"));
        answer.set("target", request->get("from"));
        answer.set("msgId", request->get("msgId"));
        Poco::JSON::Object message;
        message.set("code", 200);
        answer.set("message", message);
        return jsonToString(answer);
    }

    pilot_rpc::rpc_service service;
    unsigned short port = 0;

private:
    void bindForwarded(const std::string& name)
    {
        service.bind(name, [this, name](const msgpack::object& args) {
            std::string first;
            std::string second;
            if (args.type == msgpack::type::ARRAY && args.via.array.size > 0 &&
                args.via.array.ptr[0].type == msgpack::type::STR)
                first = args.via.array.ptr[0].as<std::string>();
            if (args.type == msgpack::type::ARRAY && args.via.array.size > 1 &&
                args.via.array.ptr[1].type == msgpack::type::STR)
                second = args.via.array.ptr[1].as<std::string>();
            {
                std::lock_guard<std::mutex> lock(mutex);
                ++calls;
                procedure = name;
            }
            if (reply)
                return pilot_rpc::service_reply::success(reply(name, first));
            // A real service refuses what it cannot read; the plug-in answers
            // such a refusal with the request's own envelope.
            if (!parseObject(first))
                return pilot_rpc::service_reply::failure(2, "request is not a JSON object");
            return pilot_rpc::service_reply::success(standardAnswer(first, second));
        });
    }

    const Reply reply;
    mutable std::mutex mutex;  // guards calls, procedure
    std::uint64_t calls = 0;
    std::string procedure;
};

/// The plug-in, started against a FuzzService with the vehicle connected.
class FuzzedPlugin {
public:
    using Access = PilotControlPTestAccess;
    static constexpr const char* pilotId = "UAV-1";
    static constexpr const char* stationId = "station-1";
    static constexpr auto bound = std::chrono::seconds(5);

    explicit FuzzedPlugin(FuzzService::Reply reply = nullptr) : service(std::move(reply))
    {
        // Every plug-in log line is a cost per input; VELMORA_FUZZ_LOG=1 shows them.
        if (!std::getenv("VELMORA_FUZZ_LOG"))
            Poco::Logger::get(logName()).setLevel(Poco::Message::PRIO_FATAL);
        configInstance().setString("mqtt.server_uri", "127.0.0.1:1883");
        configInstance().setString("mqtt.user_name", "");
        configInstance().setString("mqtt.pawsswd", "");
        plugin->setCallback(bus.callback());
        plugin->start(nullptr, mqtt, "127.0.0.1", service.port);
        check(service.service.wait_for_subscriber("vehicleOnlineStatus", bound), "plug-in did not subscribe");
        service.service.set_recording(false);
        service.service.publish("pilotConnectState", "true");
        for (int i = 0; i < 500 && !state().pilotConnected; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        check(state().pilotConnected, "vehicle not reported connected");
        check(!mqtt->topics().empty(), "no MQTT command topic subscribed");
    }

    PilotControlPImpl& state() { return Access::impl(*plugin); }

    /// Puts back what an input may have changed: identity, vehicle link.
    void restoreState()
    {
        state().setPilotId(pilotId);
        state().pilotConnected = true;
    }

    /// Returns once the service has answered everything the plug-in sent on
    /// its call link before now, and what those answers caused has run.
    void settle()
    {
        auto client = state().callClient();
        check(client != nullptr, "the call client is gone");
        try {
            (void)client->call<5000, int>("getIntConfig", std::string("station.app_type"));
        } catch (const std::exception&) {
            fail("the service link does not answer");
        }
        ThreadPool::defaultPool().joinAll();
        check(Access::drainOutbound(*plugin, bound), "the outbound worker does not drain");
    }

    FuzzService service;
    std::shared_ptr<CountingMqttClient> mqtt = std::make_shared<CountingMqttClient>(stationId);
    CountingBus bus;
    std::shared_ptr<PilotControlP> plugin = PilotControlP::createInstance();
};

} // namespace vlm::fuzz
