#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <sstream>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

#include "VelmoraCommon.h"
#include "rpc/service/rpc_service.h"

namespace vlm::test {

/// A pilot control micro service scripted for plug-in tests: it answers the
/// settings queries from a table, answers forwarded requests like a real
/// service would (or as a test scripts), and records every call by name with
/// its arguments as text.
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
        intSettings = {{"station.app_type", 0}, {"station.link_type", 0}};
        stringSettings = {{"vehicle.pilot_id", "UAV-1"}};
        boolSettings = {{"vehicle.six_axis_ar_seat", false}};
        bindSettings();
        for (const char* name : {"telementry", "flightControl", "firmwareUpdate", "dataPlayback", "electronicFence",
                                 "project", "multiRotor", "microService", "djiControl", "pilotControlBase"})
            bindForwarded(name);
        service.bind("reportRPCSub", [this](const msgpack::object& args) {
            record("reportRPCSub", args);
            return pilot_rpc::service_reply::success(true);
        });
        port = service.start(0);
    }

    // The handlers use the members declared after `service`, which go first:
    // the service's thread has to end before they do.
    ~ScriptedService() { service.stop(); }
    ScriptedService(const ScriptedService&) = delete;
    ScriptedService& operator=(const ScriptedService&) = delete;

    /// The answer a real service gives: the request's api and msgId, swapped
    /// addresses, code 200.
    static std::string standardAnswer(const std::vector<std::string>& args)
    {
        Poco::JSON::Object answer(Poco::JSON_PRESERVE_KEY_ORDER);
        Poco::JSON::Object::Ptr request;
        try {
            request = Poco::JSON::Parser().parse(args.empty() ? "{}" : args[0]).extract<Poco::JSON::Object::Ptr>();
        } catch (...) {
            request = new Poco::JSON::Object;
        }
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
        std::vector<Call> matching;
        for (auto& c : calls())
            if (c.name == name)
                matching.push_back(c);
        return matching;
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
    std::map<std::string, int> intSettings;
    std::map<std::string, std::string> stringSettings;
    std::map<std::string, bool> boolSettings;

private:
    static std::string argText(const msgpack::object& arg)
    {
        if (arg.type == msgpack::type::STR)
            return arg.as<std::string>();
        if (arg.type == msgpack::type::BOOLEAN)
            return arg.as<bool>() ? "true" : "false";
        std::ostringstream out;
        out << arg;
        return out.str();
    }

    std::vector<std::string> record(const std::string& name, const msgpack::object& args)
    {
        std::vector<std::string> texts;
        if (args.type == msgpack::type::ARRAY)
            for (uint32_t i = 0; i < args.via.array.size; ++i)
                texts.push_back(argText(args.via.array.ptr[i]));
        {
            std::lock_guard<std::mutex> lock(mutex);
            recorded.push_back({name, texts});
        }
        changed.notify_all();
        return texts;
    }

    template <typename Table>
    static auto lookup(const Table& table, const std::vector<std::string>& args)
    {
        auto it = args.empty() ? table.end() : table.find(args[0]);
        if (it == table.end())
            throw std::runtime_error("unknown key: " + (args.empty() ? std::string() : args[0]));
        return it->second;
    }

    template <typename Table>
    void bindSetting(const std::string& name, const Table& table)
    {
        service.bind(name, [this, name, &table](const msgpack::object& args) {
            return pilot_rpc::service_reply::success(lookup(table, record(name, args)));
        });
    }
    void bindSettings()
    {
        bindSetting("getIntConfig", intSettings);
        bindSetting("getStringConfig", stringSettings);
        bindSetting("getBoolConfig", boolSettings);
    }

    void bindForwarded(const std::string& name)
    {
        service.bind(name, [this, name](const msgpack::object& args) {
            auto texts = record(name, args);
            Responder custom;
            {
                std::lock_guard<std::mutex> lock(mutex);
                custom = responder;
            }
            return pilot_rpc::service_reply::success(custom ? custom(name, texts) : standardAnswer(texts));
        });
    }

    mutable std::mutex mutex;  // guards recorded, responder
    mutable std::condition_variable changed;
    std::vector<Call> recorded;
    Responder responder;
};

} // namespace vlm::test
