#include "app/openapi/OpenApiDocument.h"

#include <algorithm>
#include <map>
#include <set>

#include "app/openapi/OpenApiParts.h"

namespace vlm::host {
namespace {

using namespace openapi;
using Poco::JSON::Array;
using Poco::JSON::Object;

constexpr const char* noCategoryTag = "no category";
constexpr const char* otherTag = "other";

// Where each described plug-in API came from.
struct ListedApi {
    const PluginApiList* plugin;
    const PluginApi* api;
};

Object::Ptr serverErrorSchema()
{
    return object({{"type", "object"},
                   {"description", "The server's own refusal: the HTTP status and why."},
                   {"required", array({"code", "msg"})},
                   {"properties", object({{"code", object({{"type", "integer"}})},
                                          {"msg", object({{"type", "string"}})}})}});
}

Object::Ptr envelopeSchema()
{
    auto text = [](const char* description) { return object({{"type", "string"}, {"description", description}}); };
    Object::Ptr properties = object();
    properties->set("type", text("\"request\" for a request. Labels the envelope only: a body without it is "
                                 "logged (\"param type error\") and still forwarded."));
    properties->set("from", text("The sender; an answer swaps \"from\" and \"target\"."));
    properties->set("target", text("The receiver, usually the station."));
    properties->set("msgId", text("The caller's request id; it travels back unchanged."));
    properties->set("message", object({{"type", "object"},
                                       {"description", "The payload the micro service reads."},
                                       {"additionalProperties", true}}));
    properties->set("api", text("The API name, read on MQTT and the bus; over HTTP the path names the API."));
    properties->set("interface", text("The API name on the bus (wins over \"api\")."));
    properties->set("pilot_id", text("The vehicle's id."));
    return object({{"type", "object"},
                   {"description", "The envelope the HTTP, MQTT and bus fronts share. Over HTTP it is forwarded "
                                   "to the micro service as it stands; an empty body counts as {}."},
                   {"properties", properties},
                   {"additionalProperties", true},
                   {"example", object({{"type", "request"},
                                       {"from", "my-app"},
                                       {"target", "station-1"},
                                       {"msgId", "1"},
                                       {"message", object()}})}});
}

Object::Ptr shortErrorSchema()
{
    Object::Ptr properties = object();
    properties->set("code", object({{"type", "integer"},
                                    {"enum", array({-1, 4001})},
                                    {"description", "-1: the API is not in the plug-in's catalogue (\"current api "
                                                    "not exist: <api>\"; met on MQTT and the bus, an unknown HTTP "
                                                    "path is answered 404). 4001: the API needs a connected "
                                                    "vehicle and none is (\"The vehicle not connected\")."}}));
    properties->set("id", object({{"type", "string"}, {"description", "The vehicle's id, empty while unknown."}}));
    properties->set("msg", object({{"type", "string"}}));
    properties->set("type", object({{"type", "string"}, {"enum", array({"response"})}}));
    return object({{"type", "object"},
                   {"description", "A refusal without the request's envelope."},
                   {"required", array({"code", "id", "msg", "type"})},
                   {"properties", properties}});
}

Object::Ptr envelopeErrorSchema()
{
    Object::Ptr inner = object();
    inner->set("code", object({{"type", "integer"},
                               {"description", "4002: forwarding failed (\"Pilot response http error msg: "
                                               "<reason>\"). 4001: no vehicle (event streams). Any other value "
                                               "is the RPC link's own error code, with its text in \"msg\" "
                                               "(service down, time-out)."}}));
    inner->set("msg", object({{"type", "string"}}));
    inner->set("type", object({{"type", "string"}, {"enum", array({"response"})}}));
    Object::Ptr properties = object();
    properties->set("type", object({{"type", "string"}, {"enum", array({"response"})}}));
    properties->set("from", object({{"type", "string"}, {"description", "The request's \"target\"."}}));
    properties->set("target", object({{"type", "string"}, {"description", "The request's \"from\"."}}));
    properties->set("message", object({{"type", "object"},
                                       {"description", "The request's \"message\" with the error added."},
                                       {"required", array({"code", "msg", "type"})},
                                       {"properties", inner},
                                       {"additionalProperties", true}}));
    return object({{"type", "object"},
                   {"description", "The request's envelope answered with an error; its other keys (\"msgId\") "
                                   "come back unchanged."},
                   {"required", array({"type", "from", "target", "message"})},
                   {"properties", properties},
                   {"additionalProperties", true}});
}

Object::Ptr components(bool tokenRequired)
{
    Object::Ptr schemas = object();
    schemas->set("Envelope", envelopeSchema());
    schemas->set("ServiceAnswer", object({{"type", "object"},
                                          {"description", "The micro service's answer, written as it came; "
                                                          "\"code\" 200 means done."},
                                          {"additionalProperties", true}}));
    schemas->set("ShortError", shortErrorSchema());
    schemas->set("EnvelopeError", envelopeErrorSchema());
    schemas->set("ServerError", serverErrorSchema());

    const Object::Ptr serverError = ref("schemas", "ServerError");
    Object::Ptr responses = object();
    responses->set(badRequest, response("The body is not a JSON object, or the URI is malformed.",
                                        "application/json", serverError));
    if (tokenRequired)
        responses->set(unauthorized, response("\"Authorization: Bearer <token>\" is missing or wrong.",
                                              "application/json", serverError));
    responses->set(forbidden, response("\"Host\" does not name this server, or the request comes from a browser "
                                       "page of another origin (see http.allowed_hosts and http.allowed_origins); "
                                       "answered before the token is checked.",
                                       "application/json", serverError));
    responses->set(notFound, response("No route at this path.", "application/json", serverError));
    responses->set(methodNotAllowed, response("The method is not served here; \"Allow\" names those that are.",
                                              "application/json", serverError));
    responses->set(payloadTooLarge, response("The body is larger than the server takes (http.max_body_bytes).",
                                             "application/json", serverError));
    responses->set(handlerFailed, response("The handler failed.", "application/json", serverError));
    responses->set(stopping, response("The server is stopping.", "application/json", serverError));

    Object::Ptr requestBodies = object();
    requestBodies->set("Envelope",
                       object({{"required", false},
                               {"content", object({{"application/json",
                                                    object({{"schema", ref("schemas", "Envelope")}})}})}}));

    Object::Ptr schemes = object();
    schemes->set("bearerToken", object({{"type", "http"},
                                        {"scheme", "bearer"},
                                        {"description", "The host's http.token, when set."}}));
    return object({{"schemas", schemas},
                   {"responses", responses},
                   {"requestBodies", requestBodies},
                   {"securitySchemes", schemes}});
}

std::string describeApi(const ListedApi& listed)
{
    const PluginApi& api = *listed.api;
    std::string text = "API " + std::to_string(api.number) + " of " + listed.plugin->plugin;
    text += api.category ? ", service category \"" + *api.category + "\"." : ", in no service category.";
    if (api.streaming)
        text += " Streams server-sent events with the newest data of this API until the vehicle disconnects "
                "(\"event: disconnect\") or the client goes away.";
    text += api.needsVehicle ? " Needs a connected vehicle: without one the answer is an error with code 4001."
                             : " Works without a connected vehicle.";
    return text;
}

Object::Ptr apiOperation(const ListedApi& listed, const std::string& operationId, bool tokenRequired)
{
    const PluginApi& api = *listed.api;
    Object::Ptr operation = object();
    operation->set("operationId", operationId);
    operation->set("summary", api.name);
    operation->set("description", describeApi(listed));
    operation->set("tags", array({api.category.value_or(noCategoryTag)}));

    Object::Ptr responses = object();
    if (api.streaming) {
        Object::Ptr content = object();
        content->set("text/event-stream",
                     object({{"schema", object({{"type", "string"},
                                                {"description", "Blocks of \"id: <n>\", \"event: " + api.name +
                                                                    "\" and, when new data came, \"data: "
                                                                    "<JSON>\"."}})}}));
        content->set("application/json", object({{"schema", ref("schemas", "EnvelopeError")}}));
        responses->set("200", object({{"description", "The event stream; without a connected vehicle, one "
                                                      "JSON error (code 4001) instead."},
                                      {"content", content}}));
    } else {
        operation->set("requestBody", ref("requestBodies", "Envelope"));
        Object::Ptr anyOf = object({{"anyOf", array({ref("schemas", "ServiceAnswer"), ref("schemas", "ShortError"),
                                                     ref("schemas", "EnvelopeError")})}});
        responses->set("200", response("The micro service's answer, or an error answer in the same form: "
                                       "ShortError (4001) or EnvelopeError (4002, RPC link errors).",
                                       "application/json", anyOf));
        responses->set("400", ref("responses", badRequest));
        responses->set("413", ref("responses", payloadTooLarge));
    }
    addServerRefusals(*responses, tokenRequired);
    operation->set("responses", responses);

    operation->set("x-velmora-plugin", listed.plugin->plugin);
    operation->set("x-velmora-api-number", api.number);
    operation->set("x-velmora-category", api.category ? Poco::Dynamic::Var(*api.category) : Poco::Dynamic::Var());
    operation->set("x-velmora-streaming", api.streaming);
    operation->set("x-velmora-needs-vehicle", api.needsVehicle);
    return object({{api.streaming ? "get" : "post", operation}});
}

Object::Ptr unlistedOperation(const std::string& path, const std::string& operationId, bool tokenRequired)
{
    Object::Ptr responses = object({{"200", object({{"description", "The plug-in's answer."}})}});
    addServerRefusals(*responses, tokenRequired);
    Object::Ptr operation = object({{"operationId", operationId},
                                    {"summary", path},
                                    {"description", "Registered by a plug-in that does not list its APIs."},
                                    {"tags", array({otherTag})},
                                    {"responses", responses}});
    return object({{"post", operation}});
}

// Operation ids must be unique in a document; two plug-ins may use one name.
std::string uniqueId(std::string wanted, std::set<std::string>& taken)
{
    std::string id = wanted;
    for (int n = 2; !taken.insert(id).second; ++n)
        id = wanted + "_" + std::to_string(n);
    return id;
}

} // namespace

Poco::JSON::Object::Ptr buildOpenApiDocument(const OpenApiInputs& inputs)
{
    std::map<std::string, ListedApi> byPath;
    for (const auto& plugin : inputs.plugins) {
        for (const auto& api : plugin.apis) {
            if (api.httpPath)
                byPath.emplace(*api.httpPath, ListedApi{&plugin, &api});
        }
    }
    const std::set<std::string> registered(inputs.registeredPaths.begin(), inputs.registeredPaths.end());

    Object::Ptr paths = object();
    std::set<std::string> operationIds;
    std::map<std::string, int> categoryTags;  // tag and the lowest API number under it
    bool anyUnlisted = false;
    for (const auto& path : registered) {
        Object::Ptr item = describeHostPath(path, inputs.tokenRequired);
        if (!item) {
            const auto listed = byPath.find(path);
            if (listed != byPath.end()) {
                const PluginApi& api = *listed->second.api;
                item = apiOperation(listed->second, uniqueId(api.name, operationIds), inputs.tokenRequired);
                const std::string tag = api.category.value_or(noCategoryTag);
                const auto known = categoryTags.find(tag);
                if (known == categoryTags.end() || known->second > api.number)
                    categoryTags[tag] = api.number;
            } else {
                item = unlistedOperation(path, uniqueId(identifierFrom(path), operationIds), inputs.tokenRequired);
                anyUnlisted = true;
            }
        }
        paths->set(path, item);
    }

    // Categories in the order of their APIs' numbers, as the plug-in numbers them.
    std::vector<std::pair<int, std::string>> byNumber;
    for (const auto& [tag, number] : categoryTags)
        byNumber.emplace_back(number, tag);
    std::sort(byNumber.begin(), byNumber.end());
    Poco::JSON::Array::Ptr tags = hostPathTags();
    for (const auto& [number, tag] : byNumber) {
        tags->add(object({{"name", tag},
                          {"description", tag == noCategoryTag ? std::string("Plug-in APIs in no service category.")
                                                               : "Plug-in APIs of the service category \"" + tag +
                                                                     "\"."}}));
    }
    if (anyUnlisted)
        tags->add(object({{"name", otherTag}, {"description", "Endpoints of plug-ins that do not list their APIs."}}));

    Poco::JSON::Array::Ptr plugins = new Array;
    for (const auto& plugin : inputs.plugins) {
        Poco::JSON::Array::Ptr notServed = new Array;
        int served = 0;
        for (const auto& api : plugin.apis) {
            if (api.httpPath && registered.count(*api.httpPath))
                ++served;
            else
                notServed->add(api.name);
        }
        plugins->add(object({{"name", plugin.plugin},
                             {"guid", plugin.guid},
                             {"apis", static_cast<int>(plugin.apis.size())},
                             {"endpoints", served},
                             {"apisWithoutEndpoint", notServed}}));
    }

    Object::Ptr info = object(
        {{"title", "Velmora station host"},
         {"version", inputs.version},
         {"description", "Every HTTP path this host serves right now: its own routes under /host/ and the "
                         "endpoints of the loaded plug-ins, described from their API lists. Any other path is "
                         "answered 404 {\"code\": 404, \"msg\": \"no api at <path>\"}."}});

    Object::Ptr document = object();
    document->set("openapi", "3.0.3");
    document->set("info", info);
    document->set("servers", array({object({{"url", "/"}})}));
    if (inputs.tokenRequired)
        document->set("security", array({object({{"bearerToken", Poco::JSON::Array::Ptr(new Array)}})}));
    document->set("tags", tags);
    document->set("paths", paths);
    document->set("components", components(inputs.tokenRequired));
    document->set("x-velmora-plugins", plugins);
    return document;
}

} // namespace vlm::host
