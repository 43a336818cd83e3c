// The configuration actions in the API description.

#include "app/ConfigActionRoute.h"
#include "app/openapi/OpenApiDocument.h"
#include "app/openapi/OpenApiParts.h"

namespace vlm::host {
namespace {

using namespace openapi;
using Poco::JSON::Object;

constexpr const char* configTag = "host";

Object::Ptr typed(const char* type)
{
    return object({{"type", type}});
}

Object::Ptr answerSchema()
{
    Object::Ptr properties = object({{"action", typed("string")},
                                     {"ok", typed("boolean")},
                                     {"errors", object({{"type", "array"}, {"items", typed("string")}})}});
    properties->set("config_file", typed("string"));
    properties->set("kept", object({{"type", "array"}, {"items", typed("string")}}));
    properties->set("source", typed("string"));
    properties->set("target", typed("string"));
    properties->set("hangar_file", typed("string"));
    properties->set("changed", typed("boolean"));
    properties->set("address", typed("string"));
    properties->set("answered", typed("boolean"));
    properties->set("reason", typed("string"));
    return object({{"type", "object"}, {"required", array({"action", "ok", "errors"})}, {"properties", properties}});
}

Object::Ptr actionPathItem(const std::string& id, const std::string& summary, const std::string& description,
                           bool takesAddress, bool tokenRequired)
{
    Object::Ptr responses = object();
    responses->set("200", response("The routine ran and succeeded.", "application/json", answerSchema()));
    responses->set("422", response("The routine ran and failed: \"ok\" is false, \"errors\" holds the lines it "
                                   "logged.",
                                   "application/json", answerSchema()));
    responses->set("400", ref("responses", badRequest));
    responses->set("413", ref("responses", payloadTooLarge));
    responses->set("503", response("No loaded plug-in offers the routines, or another configuration action is "
                                   "running (Retry-After).",
                                   "application/json", typed("object")));
    addServerRefusals(*responses, tokenRequired);
    Object::Ptr post = object({{"operationId", id},
                               {"summary", summary},
                               {"description", description},
                               {"tags", array({configTag})},
                               {"responses", responses}});
    Object::Ptr body = takesAddress
                           ? object({{"type", "object"},
                                     {"required", array({"address"})},
                                     {"properties", object({{"address", typed("string")}})},
                                     {"additionalProperties", false}})
                           : object({{"type", "object"}, {"additionalProperties", false}});
    post->set("requestBody", object({{"required", takesAddress},
                                     {"content", object({{"application/json", object({{"schema", body}})}})}}));
    return object({{"post", post}});
}

} // namespace

Poco::JSON::Object::Ptr describeConfigActionPath(const std::string& path, bool tokenRequired)
{
    if (path == configResetDefaultsPath)
        return actionPathItem("hostConfigResetDefaults", "Restore the station defaults",
                              "Replaces the station settings of the host's configuration file with their "
                              "defaults, keeps the host's own sections (http, mqtt, plugins, bus, log) and saves "
                              "the file. No parameters.",
                              false, tokenRequired);
    if (path == configBackupPath)
        return actionPathItem("hostConfigBackup", "Back up the configuration",
                              "Copies <config home>/fenlix/<host>.json to <host>-backup.json beside it. "
                              "No parameters.",
                              false, tokenRequired);
    if (path == configLoadHangarPath)
        return actionPathItem("hostConfigLoadHangar", "Merge the hangar file",
                              "Copies remoteIp, remotePort and uavType of /etc/hangarInfo/hangarComConfig.json "
                              "into the station settings and saves the file when anything changed. "
                              "No parameters.",
                              false, tokenRequired);
    if (path == pingPath)
        return actionPathItem("hostPing", "Ping a host",
                              "One ICMP echo request to a numeric IPv4 address, 2 s time-out; \"reason\" says "
                              "why when no answer came (for example a raw socket the host may not open).",
                              true, tokenRequired);
    return nullptr;
}

} // namespace vlm::host
