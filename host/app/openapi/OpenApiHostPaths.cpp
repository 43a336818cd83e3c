// The host's own routes in the API description: health, metrics, the bus tap, the
// description itself and the console's files.

#include "app/BusTapRoute.h"
#include "app/HealthRoute.h"
#include "app/MetricsRoute.h"
#include "app/console/ConsoleRoute.h"
#include "app/openapi/ApiDescriptionRoute.h"
#include "app/openapi/OpenApiDocument.h"
#include "app/openapi/OpenApiParts.h"

namespace vlm::host {
namespace {

using namespace openapi;
using Poco::JSON::Object;

constexpr const char* hostTag = "host";
constexpr const char* consoleTag = "console";

Object::Ptr operation(const std::string& id, const std::string& summary, const std::string& description,
                      const char* tag, Object::Ptr responses)
{
    return object({{"operationId", id},
                   {"summary", summary},
                   {"description", description},
                   {"tags", array({tag})},
                   {"responses", responses}});
}

Object::Ptr typed(const char* type, const char* description = nullptr)
{
    Object::Ptr schema = object({{"type", type}});
    if (description)
        schema->set("description", description);
    return schema;
}

// One figure per RPC client of a plug-in that reports its links.
Object::Ptr linkFigures(bool nullable)
{
    Object::Ptr figure = typed("integer");
    if (nullable)
        figure->set("nullable", true);
    return object({{"type", "object"}, {"properties", object({{"call", figure}, {"subscription", figure}})}});
}

Object::Ptr healthSchema()
{
    Object::Ptr service = object({{"type", "object"},
                                  {"properties", object({{"address", typed("string")},
                                                         {"port", typed("integer")},
                                                         {"link", object({{"type", "string"},
                                                                          {"enum", array({"up", "connecting", "down",
                                                                                          "unknown"})}})},
                                                         {"established", typed("integer")},
                                                         {"connecting", typed("integer")},
                                                         {"last_frame_age_ms", linkFigures(true)},
                                                         {"reconnects", linkFigures(false)},
                                                         {"counters", object({{"type", "object"},
                                                                              {"additionalProperties",
                                                                               typed("integer")}})}})}});
    Object::Ptr plugin = object({{"type", "object"},
                                 {"properties", object({{"name", typed("string")},
                                                        {"guid", typed("string")},
                                                        {"type", typed("integer")},
                                                        {"library", typed("string")},
                                                        {"state", typed("string")},
                                                        {"service", service}})}});
    Object::Ptr properties = object();
    properties->set("status", object({{"type", "string"},
                                      {"enum", array({"ok", "degraded"})},
                                      {"description", "\"degraded\" when a plug-in failed, the broker is away or "
                                                      "a service link is not up."}}));
    properties->set("uptime_s", typed("number"));
    properties->set("http", object({{"type", "object"},
                                    {"properties", object({{"address", typed("string")},
                                                           {"port", typed("integer")},
                                                           {"token_required", typed("boolean")}})}}));
    properties->set("mqtt", object({{"type", "object"},
                                    {"properties", object({{"server_uri", typed("string")},
                                                           {"connected", typed("boolean")},
                                                           {"station_sn", typed("string")}})}}));
    properties->set("plugins", object({{"type", "array"}, {"items", plugin}}));
    Object::Ptr failure = object({{"type", "object"},
                                  {"properties", object({{"library", typed("string")}, {"reason", typed("string")}})}});
    properties->set("failed_plugins", object({{"type", "array"}, {"items", failure}}));
    properties->set("bus", object({{"type", "object"}, {"additionalProperties", typed("integer")}}));
    return object({{"type", "object"}, {"required", array({"status"})}, {"properties", properties}});
}

Object::Ptr refusals(Object::Ptr responses, bool tokenRequired)
{
    responses->set("405", ref("responses", methodNotAllowed));
    addServerRefusals(*responses, tokenRequired);
    return responses;
}

Object::Ptr healthPathItem(bool tokenRequired)
{
    Object::Ptr responses = object({{"200", response("The host's state.", "application/json", healthSchema())}});
    return object({{"get", operation("hostHealth", "Health of the host",
                                     "The HTTP server, the MQTT link, each plug-in with the link to its service, "
                                     "the plug-ins that failed and the bus counters.",
                                     hostTag, refusals(responses, tokenRequired))}});
}

Object::Ptr metricsPathItem(bool tokenRequired)
{
    Object::Ptr responses = object({{"200", response("The figures in the Prometheus text exposition format 0.0.4.",
                                                     "text/plain", typed("string"))}});
    return object({{"get", operation("hostMetrics", "Metrics for Prometheus",
                                     "HTTP requests by route class and status, the MQTT link and its counters, the "
                                     "bus counters, each plug-in's service link, the figures plug-ins report "
                                     "(\"velmora_plugin_...\": forwarded requests by front and outcome with "
                                     "their latency, link traffic, open streams, drops) and the process's memory, "
                                     "CPU time, threads and descriptors.",
                                     hostTag, refusals(responses, tokenRequired))}});
}

Object::Ptr busPathItem(bool tokenRequired)
{
    Object::Ptr streamResponses = object(
        {{"200", response("Every bus message from now on: \"id: <seq>\", \"event: bus\" (\"rejected\" for a text "
                          "that is not a JSON object, \"dropped\" with {\"dropped\": <n>} when the reader fell "
                          "behind), \"data: <message>\"; \": keep-alive\" comments while quiet.",
                          "text/event-stream", typed("string"))}});

    Object::Ptr message = object({{"type", "object"},
                                  {"required", array({"to"})},
                                  {"properties", object({{"to", object({{"type", "array"},
                                                                        {"items", typed("string")},
                                                                        {"description", "Receiver plug-in GUIDs."}})},
                                                         {"guid", typed("string", "The sender's GUID.")}})},
                                  {"additionalProperties", true}});
    Object::Ptr queued = object({{"type", "object"},
                                 {"properties", object({{"code", typed("integer")},
                                                        {"msg", typed("string")},
                                                        {"seq", typed("integer")}})}});
    Object::Ptr postResponses = object();
    postResponses->set("202", response("Queued for the receivers: {\"code\": 0, \"msg\": \"queued\", \"seq\": <n>}.",
                                       "application/json", queued));
    postResponses->set("400", ref("responses", badRequest));
    postResponses->set("413", ref("responses", payloadTooLarge));
    Object::Ptr post = operation("hostBusInject", "Send a bus message",
                                 "Delivers the body as if another plug-in had sent it; 503 when the bus refuses "
                                 "it (full or stopping).",
                                 hostTag, refusals(postResponses, tokenRequired));
    post->set("requestBody", object({{"required", true},
                                     {"content", object({{"application/json", object({{"schema", message}})}})}}));
    return object({{"get", operation("hostBusTap", "Watch the bus",
                                     "Streams every message on the host's bus as server-sent events.", hostTag,
                                     refusals(streamResponses, tokenRequired))},
                   {"post", post}});
}

Object::Ptr descriptionPathItem(bool tokenRequired)
{
    Object::Ptr responses = object(
        {{"200", response("This document.", "application/json", typed("object"))}});
    return object({{"get", operation("hostApiDescription", "This API description",
                                     "Built for each request from the routes the host serves at that moment.",
                                     hostTag, refusals(responses, tokenRequired))}});
}

Object::Ptr consolePathItem(const ConsoleRoute& route)
{
    Object::Ptr responses = object(
        {{"200", response("The file.", route.contentType.substr(0, route.contentType.find(';')), typed("string"))}});
    // Open routes: the token plays no part, so 401 cannot come.
    refusals(responses, false);
    const bool page = route.path == consolePath;
    Object::Ptr get = operation(page ? "hostConsole" : "hostConsoleFile_" + identifierFrom(route.asset->name),
                                page ? "The station console" : "Console file " + std::string(route.asset->name),
                                page ? "The page that shows and drives the gateway; served without the token, "
                                       "which the page asks for when the host needs it."
                                     : "A file of the station console, served without the token.",
                                consoleTag, responses);
    get->set("security", Poco::JSON::Array::Ptr(new Poco::JSON::Array));
    return object({{"get", get}});
}

} // namespace

Poco::JSON::Object::Ptr describeHostPath(const std::string& path, bool tokenRequired)
{
    if (path == healthPath)
        return healthPathItem(tokenRequired);
    if (path == metricsPath)
        return metricsPathItem(tokenRequired);
    if (path == busTapPath)
        return busPathItem(tokenRequired);
    if (path == apiDescriptionPath)
        return descriptionPathItem(tokenRequired);
    if (Object::Ptr item = describeConfigActionPath(path, tokenRequired))
        return item;
    for (const auto& route : consoleRoutes()) {
        if (route.path == path)
            return consolePathItem(route);
    }
    return nullptr;
}

Poco::JSON::Array::Ptr hostPathTags()
{
    return array({object({{"name", hostTag}, {"description", "The host's own routes."}}),
                  object({{"name", consoleTag}, {"description", "The station console's page and files."}})});
}

} // namespace vlm::host
