#include "HelloPlugin.h"

#include <atomic>
#include <cstdint>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Logger.h>
#include <Poco/Net/HTTPResponse.h>

#include "MqttClient.h"
#include "VelmoraCommon.h"
#include "WebApiBasic.h"

namespace hello {

struct HelloPlugin::State {
    std::atomic<bool> running{false};
    std::atomic<std::uint64_t> greetings{0};
    std::atomic<std::uint64_t> answered{0};
    std::atomic<std::uint64_t> dropped{0};
    /// Written in start before the route exists, only read afterwards.
    std::string station;
};

namespace {

// Longest name a greeting echoes: the body is the caller's, the answer ours.
constexpr std::size_t maxNameLength = 64;

Poco::Logger& logger()
{
    // The host's logger: its level and destination come from the host's configuration.
    return Poco::Logger::get(vlm::logName());
}

void sendError(Poco::Net::HTTPServerResponse& response, Poco::Net::HTTPResponse::HTTPStatus status,
               const std::string& text)
{
    Poco::JSON::Object error;
    error.set("code", static_cast<int>(status));
    error.set("msg", text);
    response.setStatusAndReason(status);
    response.setContentType("application/json");
    response.send() << vlm::jsonToString(error);
}

// Runs on an HTTP worker thread of the host, possibly on many at once.
void greet(HelloPlugin::State& state, Poco::Net::HTTPServerResponse& response, const Poco::JSON::Object& body,
           Poco::JSON::Object& reply)
{
    if (!state.running.load()) {
        sendError(response, Poco::Net::HTTPResponse::HTTP_SERVICE_UNAVAILABLE, "the plug-in is stopping");
        return;
    }
    std::string name = "world";
    if (body.has("name")) {
        const Poco::Dynamic::Var value = body.get("name");
        if (!value.isString()) {
            sendError(response, Poco::Net::HTTPResponse::HTTP_BAD_REQUEST, "\"name\" must be a string");
            return;
        }
        name = value.extract<std::string>().substr(0, maxNameLength);
    }
    // Nothing sent yet: the host sends `reply` as the JSON answer, 200 OK.
    reply.set("code", 200);
    reply.set("msg", "Hello, " + name + "!");
    reply.set("plugin", pluginName);
    reply.set("station", state.station);
    reply.set("greetings", static_cast<Poco::UInt64>(++state.greetings));
}

// One log line for the first dropped message and every 1000th after it.
void noteDropped(HelloPlugin::State& state, const std::string& why)
{
    const std::uint64_t count = ++state.dropped;
    if (count == 1 || count % 1000 == 0)
        logger().warning("%s: dropped a bus message (%s); %s dropped so far", std::string(pluginName), why,
                         std::to_string(count));
}

} // namespace

HelloPlugin::HelloPlugin() : state(std::make_shared<State>())
{
    type = pluginType;
    name = pluginName;
}

HelloPlugin::~HelloPlugin() = default;

void HelloPlugin::start(std::shared_ptr<vlm::WebApiBasic> web, std::shared_ptr<vlm::MqttClient> mqtt,
                        std::string addr, unsigned short prt)
{
    PluginBase::start(web, mqtt, std::move(addr), prt);
    state->station = mqtt ? mqtt->getstation() : std::string();
    std::shared_ptr<State> shared = state;
    if (!web) {
        logger().error("%s: the host gave no HTTP server; %s is not served", std::string(pluginName),
                       std::string(greetPath));
        state->running = true;
        return;
    }
    web->apiRegist(greetPath, vlm::RequestApiHandler([shared](Poco::Net::HTTPServerRequest&,
                                                              Poco::Net::HTTPServerResponse& response,
                                                              const vlm::ApiParams&, Poco::JSON::Object& reply,
                                                              const Poco::JSON::Object& body) {
                       greet(*shared, response, body, reply);
                   }));
    state->running = true;
    logger().information("%s started: POST %s, bus messages to %s", std::string(pluginName), std::string(greetPath),
                         std::string(pluginGuid));
}

void HelloPlugin::stop()
{
    state->running = false;
    logger().information("%s stopped after %s greeting(s) and %s bus answer(s)", std::string(pluginName),
                         std::to_string(state->greetings.load()), std::to_string(state->answered.load()));
}

void HelloPlugin::pushMessage(std::string message)
{
    // The bus thread serves every plug-in in turn: answer at once, never wait.
    // The bus may still deliver while or after stop runs.
    if (!state->running.load())
        return;
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(message);
        if (parsed.type() != typeid(Poco::JSON::Object::Ptr)) {
            noteDropped(*state, "not a JSON object");
            return;
        }
        const Poco::JSON::Object::Ptr request = parsed.extract<Poco::JSON::Object::Ptr>();
        // Never answer an answer: two plug-ins would answer each other forever.
        if (request->optValue<std::string>("type", "") == "response")
            return;
        const std::string sender = request->optValue<std::string>("guid", "");
        if (sender.empty()) {
            noteDropped(*state, "no sender \"guid\" to answer");
            return;
        }

        // Bus messages name their sender in "guid" and their receivers in
        // "to"; an answer swaps them and carries its content in "data".
        Poco::JSON::Object::Ptr data = new Poco::JSON::Object;
        data->set("code", 200);
        data->set("msg", std::string("hello from ") + pluginName);
        data->set("answered", static_cast<Poco::UInt64>(++state->answered));
        Poco::JSON::Array::Ptr to = new Poco::JSON::Array;
        to->add(sender);
        Poco::JSON::Object answer;
        answer.set("api", request->optValue<std::string>("api", ""));
        answer.set("type", "response");
        answer.set("guid", pluginGuid);
        answer.set("to", to);
        answer.set("data", data);
        // The host queues it and returns at once, on any thread.
        if (callback)
            callback(vlm::jsonToString(answer));
    } catch (const Poco::Exception& e) {
        noteDropped(*state, e.displayText());
    } catch (const std::exception& e) {
        noteDropped(*state, e.what());
    }
}

} // namespace hello
