#include "request_handler.h"

#include <sstream>

#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>

#include "api_names.h"
#include "sim_texts.h"

namespace pilot_sim {

namespace {

std::vector<std::string> text_arguments(const std::string& procedure, const msgpack::object& args)
{
    const auto refuse = [&] {
        return std::invalid_argument(procedure +
                                     " expects one or two text arguments: the request JSON and the API name");
    };
    if (args.type != msgpack::type::ARRAY || args.via.array.size < 1 || args.via.array.size > 2)
        throw refuse();
    std::vector<std::string> texts;
    for (std::uint32_t i = 0; i < args.via.array.size; ++i) {
        const msgpack::object& arg = args.via.array.ptr[i];
        if (arg.type != msgpack::type::STR)
            throw refuse();
        texts.emplace_back(arg.via.str.ptr, arg.via.str.size);
    }
    return texts;
}

/// The request as a JSON object, or nothing with `error` saying why.
Poco::JSON::Object::Ptr parse_request(const std::string& text, std::string& error)
{
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(text);
        if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
            return parsed.extract<Poco::JSON::Object::Ptr>();
        error = "the request is not a JSON object";
    } catch (const Poco::Exception& e) {
        error = "the request is not JSON: " + e.displayText();
    }
    return nullptr;
}

std::string optional_text(const Poco::JSON::Object& object, const std::string& key)
{
    if (!object.has(key))
        return std::string();
    try {
        return object.get(key).convert<std::string>();
    } catch (const Poco::Exception&) {
        return std::string();
    }
}

/// Where the request keeps its payload: "message" from the fronts, "data" on
/// the bus. An empty object when neither is an object.
Poco::JSON::Object::Ptr request_payload(const Poco::JSON::Object& request)
{
    for (const char* key : {"message", "data"}) {
        if (request.isObject(key))
            return request.getObject(key);
    }
    return new Poco::JSON::Object;
}

std::string answer_text(const Poco::JSON::Object* request, const std::string& api, const std::string& pilot_id,
                        const request_handler::outcome& outcome)
{
    Poco::JSON::Object answer(Poco::JSON_PRESERVE_KEY_ORDER);
    answer.set("api", api);
    answer.set("type", "response");
    answer.set("from", request ? optional_text(*request, "target") : std::string());
    answer.set("target", request ? optional_text(*request, "from") : std::string());
    if (request && request->has("msgId"))
        answer.set("msgId", request->get("msgId"));
    // A bus request names its sender; the answer goes back to it.
    if (request && request->has("guid"))
        answer.set("guid", request->get("guid"));
    answer.set("pilot_id", pilot_id);
    Poco::JSON::Object message(Poco::JSON_PRESERVE_KEY_ORDER);
    message.set("code", outcome.code);
    message.set("msg", outcome.msg);
    if (!outcome.result.isEmpty())
        message.set("result", outcome.result);
    answer.set("message", message);
    std::ostringstream out;
    answer.stringify(out);
    return out.str();
}

}  // namespace

request_handler::outcome request_handler::failed(int code, std::string msg)
{
    outcome o;
    o.code = code;
    o.msg = std::move(msg);
    return o;
}

request_handler::request_handler(service_settings& settings, vehicle_model& vehicle, request_effects& effects)
    : settings_(settings), vehicle_(vehicle), effects_(effects)
{
}

std::string request_handler::answer(const std::string& procedure, const msgpack::object& args)
{
    return answer(procedure, text_arguments(procedure, args));
}

std::string request_handler::answer(const std::string& procedure, const std::vector<std::string>& args)
{
    if (args.empty() || args.size() > 2)
        throw std::invalid_argument(procedure +
                                    " expects one or two text arguments: the request JSON and the API name");
    const std::string second = args.size() > 1 ? args[1] : std::string();

    if (procedure == texts::procPilotControlBase && second == texts::setSelfGuid) {
        // The start handshake: the first argument is the bare station id.
        effects_.station_announced(args[0]);
        outcome announced;
        Poco::JSON::Object::Ptr result = new Poco::JSON::Object;
        result->set("guid", args[0]);
        announced.result = result;
        return answer_text(nullptr, second, settings_.pilot_id(), announced);
    }

    std::string error;
    const Poco::JSON::Object::Ptr request = parse_request(args[0], error);
    if (!request) {
        effects_.log(procedure + ": refused a request: " + error);
        return answer_text(nullptr, second, settings_.pilot_id(), failed(400, error));
    }

    // The API name is the second argument, except where the cloud path passes
    // a routing word there; bus and cloud requests carry it inside, where
    // "interface" wins over "api".
    std::string api = second == texts::publishToGround ? std::string() : second;
    if (api.empty())
        api = request->has("interface") ? optional_text(*request, "interface") : optional_text(*request, "api");

    outcome result;
    if (api.empty())
        result = failed(400, "the request names no api");
    else if (!is_known_api(api))
        result = failed(404, "unknown api: " + api);
    else
        result = run(api, *request_payload(*request));
    if (result.code != 200)
        effects_.log(procedure + "/" + (api.empty() ? "?" : api) + ": " + std::to_string(result.code) + " " +
                     result.msg);
    return answer_text(request.get(), api, settings_.pilot_id(), result);
}

request_handler::outcome request_handler::run(const std::string& api, const Poco::JSON::Object& payload)
{
    if (const api_entry* own = find_entry(api)) {
        if (own->needs_vehicle && !effects_.vehicle_connected())
            return failed(503, "vehicle not connected");
        return (this->*(own->act))(payload, api);
    }
    outcome generic;
    generic.result = Poco::JSON::Object::Ptr(new Poco::JSON::Object);
    return generic;
}

request_handler::outcome request_handler::commanded(const std::string& api, const command_result& result)
{
    if (result.ok)
        return outcome{};
    return failed(409, result.reason);
}

}  // namespace pilot_sim
