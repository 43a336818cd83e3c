#pragma once

// Small builders the two halves of the API description share (the plug-in
// endpoints and the host's own routes). Internal to the description.

#include <cctype>
#include <initializer_list>
#include <string>
#include <utility>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

namespace vlm::host::openapi {

/// An object that keeps the order of its keys, as a reader expects them.
inline Poco::JSON::Object::Ptr object()
{
    return new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
}

inline Poco::JSON::Object::Ptr object(std::initializer_list<std::pair<std::string, Poco::Dynamic::Var>> members)
{
    Poco::JSON::Object::Ptr result = object();
    for (const auto& [key, value] : members)
        result->set(key, value);
    return result;
}

inline Poco::JSON::Array::Ptr array(std::initializer_list<Poco::Dynamic::Var> items)
{
    Poco::JSON::Array::Ptr result = new Poco::JSON::Array;
    for (const auto& item : items)
        result->add(item);
    return result;
}

/// {"$ref": "#/components/<section>/<name>"}
inline Poco::JSON::Object::Ptr ref(const std::string& section, const std::string& name)
{
    return object({{"$ref", "#/components/" + section + "/" + name}});
}

/// A response with one media type and its schema.
inline Poco::JSON::Object::Ptr response(const std::string& description, const std::string& mediaType,
                                        const Poco::JSON::Object::Ptr& schema)
{
    return object({{"description", description},
                   {"content", object({{mediaType, object({{"schema", schema}})}})}});
}

/// `text` with every character but letters and digits made '_', for operation ids.
inline std::string identifierFrom(const std::string& text)
{
    std::string id;
    for (char c : text)
        id += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return id;
}

/// The server's own refusals, {"code": <status>, "msg": ...}, shared by every path.
inline constexpr const char* badRequest = "BadRequest";
inline constexpr const char* unauthorized = "Unauthorized";
inline constexpr const char* forbidden = "Forbidden";
inline constexpr const char* notFound = "NotFound";
inline constexpr const char* methodNotAllowed = "MethodNotAllowed";
inline constexpr const char* payloadTooLarge = "PayloadTooLarge";
inline constexpr const char* handlerFailed = "HandlerFailed";
inline constexpr const char* stopping = "Stopping";

/// Adds the server's refusals that can meet a request to a registered path.
/// (404 cannot: it is the answer for the paths the document does not list.)
inline void addServerRefusals(Poco::JSON::Object& responses, bool tokenRequired)
{
    if (tokenRequired)
        responses.set("401", ref("responses", unauthorized));
    responses.set("403", ref("responses", forbidden));
    responses.set("405", ref("responses", methodNotAllowed));
    responses.set("500", ref("responses", handlerFailed));
    responses.set("503", ref("responses", stopping));
}

} // namespace vlm::host::openapi
