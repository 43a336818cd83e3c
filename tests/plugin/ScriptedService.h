#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "VelmoraCommon.h"
#include "rpc/service/rpc_service.h"

namespace vlm::test {

/// A pilot control micro service for plug-in tests: settings from tables,
/// forwarded requests answered as a real service would (or as scripted), and
/// every call recorded by name with its arguments as text.
class ScriptedService {
public:
    struct Call {
        std::string name;
        std::vector<std::string> args;
    };
    /// Answers a forwarded request: (procedure, arguments) -> JSON answer text.
    using Responder = std::function<std::string(const std::string&, const std::vector<std::string>&)>;

    ScriptedService()
    {
        bindSetting("getIntConfig", intSettings);
        bindSetting("getStringConfig", stringSettings);
        bindSetting("getBoolConfig", boolSettings);
        for (const char* name : {"telementry", "flightControl", "firmwareUpdate", "dataPlayback", "electronicFence",
                                 "project", "multiRotor", "microService", "djiControl", "pilotControlBase"})
            service.bind(name, [this, name](const msgpack::object& args) {
                auto texts = record(name, args);
                std::unique_lock<std::mutex> lock(mutex);
                Responder custom = responder;
                lock.unlock();
                return pilot_rpc::service_reply::success(custom ? custom(name, texts) : standardAnswer(texts));
            });
        service.bind("reportRPCSub", [this](const msgpack::object& args) {
            record("reportRPCSub", args);
            return pilot_rpc::service_reply::success(true);
        });
        port = service.start(0);
    }
    // The handlers use members destroyed before `service`: its thread ends first.
    ~ScriptedService() { service.stop(); }

    /// The answer a real service gives: the request's api and msgId, swapped
    /// addresses, code 200.
    static std::string standardAnswer(const std::vector<std::string>& args)
    {
        auto request = Poco::JSON::Parser().parse(args.at(0)).extract<Poco::JSON::Object::Ptr>();
        Poco::JSON::Object answer(Poco::JSON_PRESERVE_KEY_ORDER);
        answer.set("api", args.size() > 1 ? args[1] : request->optValue<std::string>("api", ""));
        answer.set("type", "response");
        answer.set("from", request->optValue<std::string>("target", ""));
        answer.set("target", request->optValue<std::string>("from", ""));
        answer.set("msgId", request->optValue<std::string>("msgId", ""));
        answer.set("message", Poco::JSON::Parser().parse(R"({"code":200,"result":"ok"})"));
        return jsonToString(answer);
    }

    void respondWith(Responder r)
    {
        std::lock_guard<std::mutex> lock(mutex);
        responder = std::move(r);
    }
    std::vector<Call> calls() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }
    std::vector<Call> callsOf(const std::string& name) const
    {
        auto all = calls();
        all.erase(std::remove_if(all.begin(), all.end(), [&](const Call& c) { return c.name != name; }), all.end());
        return all;
    }
    bool waitForCalls(const std::string& name, size_t count,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] {
            return std::count_if(recorded.begin(), recorded.end(), [&](const Call& c) { return c.name == name; }) >=
                   static_cast<std::ptrdiff_t>(count);
        });
    }

    pilot_rpc::rpc_service service;
    unsigned short port = 0;
    std::map<std::string, int> intSettings{{"station.app_type", 0}, {"station.link_type", 0}};
    std::map<std::string, std::string> stringSettings{{"vehicle.pilot_id", "UAV-1"}};
    std::map<std::string, bool> boolSettings{{"vehicle.six_axis_ar_seat", false}};

private:
    std::vector<std::string> record(const std::string& name, const msgpack::object& args)
    {
        std::vector<std::string> texts;
        for (uint32_t i = 0; args.type == msgpack::type::ARRAY && i < args.via.array.size; ++i) {
            std::ostringstream out;  // strings without the quotes msgpack prints around them
            out << args.via.array.ptr[i];
            texts.push_back(args.via.array.ptr[i].type == msgpack::type::STR ? args.via.array.ptr[i].as<std::string>()
                                                                             : out.str());
        }
        std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back({name, texts});
        changed.notify_all();
        return texts;
    }

    template <typename Table>
    void bindSetting(const std::string& name, const Table& table)
    {
        service.bind(name, [this, name, &table](const msgpack::object& args) {
            const auto key = record(name, args).at(0);
            if (!table.count(key))
                throw std::runtime_error("unknown key: " + key);
            return pilot_rpc::service_reply::success(table.at(key));
        });
    }

    mutable std::mutex mutex;  // guards recorded, responder
    mutable std::condition_variable changed;
    std::vector<Call> recorded;
    Responder responder;
};

} // namespace vlm::test
