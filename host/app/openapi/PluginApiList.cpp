#include "app/openapi/PluginApiList.h"

#include <set>

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>

namespace vlm::host {
namespace {

std::string where(std::size_t index, const std::string& name)
{
    return "API list entry " + std::to_string(index) + (name.empty() ? "" : " (\"" + name + "\")");
}

// A key that must hold a string, or null when `nullable`.
std::optional<std::string> stringKey(const Poco::JSON::Object& entry, const std::string& key, bool nullable,
                                     const std::string& context)
{
    if (nullable && (!entry.has(key) || entry.isNull(key)))
        return std::nullopt;
    const Poco::Dynamic::Var value = entry.get(key);
    if (!value.isString())
        throw PluginApiListError(context + ": \"" + key + "\" must be a string" + (nullable ? " or null" : ""));
    return value.extract<std::string>();
}

bool boolKey(const Poco::JSON::Object& entry, const std::string& key, const std::string& context)
{
    const Poco::Dynamic::Var value = entry.get(key);
    if (value.type() != typeid(bool))
        throw PluginApiListError(context + ": \"" + key + "\" must be true or false");
    return value.extract<bool>();
}

int intKey(const Poco::JSON::Object& entry, const std::string& key, const std::string& context)
{
    const Poco::Dynamic::Var value = entry.get(key);
    if (!value.isInteger())
        throw PluginApiListError(context + ": \"" + key + "\" must be an integer");
    try {
        return value.convert<int>();
    } catch (const Poco::Exception&) {
        throw PluginApiListError(context + ": \"" + key + "\" is out of range");
    }
}

} // namespace

std::vector<PluginApi> parsePluginApiList(const std::string& text)
{
    Poco::JSON::Object::Ptr document;
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(text);
        if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
            document = parsed.extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception& e) {
        throw PluginApiListError("API list is not JSON: " + e.displayText());
    }
    if (!document || !document->isArray("apis"))
        throw PluginApiListError("API list must be an object with an \"apis\" array");

    const Poco::JSON::Array::Ptr entries = document->getArray("apis");
    std::vector<PluginApi> apis;
    std::set<std::string> names;
    for (std::size_t i = 0; i < entries->size(); ++i) {
        const Poco::JSON::Object::Ptr entry = entries->getObject(static_cast<unsigned>(i));
        if (!entry)
            throw PluginApiListError(where(i, "") + " is not an object");
        PluginApi api;
        api.name = stringKey(*entry, "name", false, where(i, "")).value_or("");
        const std::string context = where(i, api.name);
        if (api.name.empty())
            throw PluginApiListError(context + ": \"name\" is empty");
        if (!names.insert(api.name).second)
            throw PluginApiListError(context + ": the name occurs twice");
        api.number = intKey(*entry, "number", context);
        api.category = stringKey(*entry, "category", true, context);
        api.streaming = boolKey(*entry, "streaming", context);
        api.needsVehicle = boolKey(*entry, "needsVehicle", context);
        api.httpPath = stringKey(*entry, "httpPath", true, context);
        if (api.httpPath && (api.httpPath->empty() || api.httpPath->front() != '/'))
            throw PluginApiListError(context + ": \"httpPath\" must start with '/'");
        apis.push_back(std::move(api));
    }
    return apis;
}

std::optional<std::string> readPluginApiListText(Poco::SharedLibrary& library)
{
    if (!library.hasSymbol(pluginApiListSymbol))
        return std::nullopt;
    const auto function = reinterpret_cast<const char* (*)()>(library.getSymbol(pluginApiListSymbol));
    const char* text = function();
    if (!text)
        throw PluginApiListError(std::string(pluginApiListSymbol) + "() returned null");
    return std::string(text);
}

} // namespace vlm::host
