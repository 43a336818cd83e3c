#include "app/PluginConfigAction.h"

#include <cstdlib>
#include <limits>
#include <map>
#include <sstream>

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/ParseHandler.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/IPAddress.h>

#include "VelmoraCommon.h"

namespace vlm::host {
namespace {

using Poco::JSON::Object;

// The answers are a few hundred bytes; an action is never run twice to fetch
// a longer one.
constexpr std::size_t answerBufferSize = 64 * 1024;

Object::Ptr failed(const std::string& action, const std::string& reason)
{
    Object::Ptr answer = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
    answer->set("action", action);
    answer->set("ok", false);
    Poco::JSON::Array::Ptr errors = new Poco::JSON::Array;
    errors->add(reason);
    answer->set("errors", errors);
    return answer;
}

Object::Ptr callPlugin(PluginConfigActionFunction function, const std::string& action, const std::string& argument)
{
    std::string buffer(answerBufferSize, '\0');
    const std::size_t length = function(action.c_str(), argument.c_str(), buffer.data(), buffer.size());
    if (length >= buffer.size())
        return failed(action, "the plug-in's answer is longer than " + std::to_string(buffer.size() - 1) + " bytes");
    buffer.resize(length);
    try {
        Poco::JSON::Parser parser(new Poco::JSON::ParseHandler(true));
        const Poco::Dynamic::Var parsed = parser.parse(buffer);
        if (parsed.type() == typeid(Object::Ptr)) {
            // The action leads, then what the plug-in said.
            Object::Ptr answer = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
            answer->set("action", action);
            const Object::Ptr reported = parsed.extract<Object::Ptr>();
            for (const auto& [key, value] : *reported)
                answer->set(key, value);
            return answer;
        }
    } catch (const Poco::Exception&) {
    }
    return failed(action, "the plug-in's answer is not a JSON object");
}

using Sections = std::map<std::string, Poco::Dynamic::Var>;

Sections hostSectionsOf(Poco::Util::JSONConfiguration& config)
{
    std::ostringstream text;
    config.save(text, 0);
    const Object::Ptr root = Poco::JSON::Parser().parse(text.str()).extract<Object::Ptr>();
    Sections sections;
    for (const auto& name : hostOwnSections())
        if (root->has(name))
            sections[name] = root->get(name);
    return sections;
}

// Writes a parsed JSON value back under `key` through the configuration's own
// setters, which take dotted keys with list indexes ("plugins[0].library").
void setTree(Poco::Util::JSONConfiguration& config, const std::string& key, const Poco::Dynamic::Var& value)
{
    if (value.type() == typeid(Object::Ptr)) {
        for (const auto& [name, member] : *value.extract<Object::Ptr>())
            setTree(config, key + "." + name, member);
    } else if (value.type() == typeid(Poco::JSON::Array::Ptr)) {
        const Poco::JSON::Array::Ptr items = value.extract<Poco::JSON::Array::Ptr>();
        for (std::size_t i = 0; i < items->size(); ++i)
            setTree(config, key + "[" + std::to_string(i) + "]", items->get(static_cast<unsigned>(i)));
    } else if (value.isBoolean()) {
        config.setBool(key, value.convert<bool>());
    } else if (value.isInteger()) {
        const auto number = value.convert<Poco::Int64>();
        if (number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max())
            config.setInt(key, static_cast<int>(number));
        else
            config.setDouble(key, static_cast<double>(number));
    } else if (value.isNumeric()) {
        config.setDouble(key, value.convert<double>());
    } else if (value.isString()) {
        config.setString(key, value.convert<std::string>());
    }
    // null has no setter; a key left out reads as its default.
}

Object::Ptr resetDefaults(PluginConfigActionFunction function)
{
    Poco::Util::JSONConfiguration& config = configInstance();
    Sections kept;
    try {
        kept = hostSectionsOf(config);
    } catch (const Poco::Exception& e) {
        return failed(resetDefaultsAction, "the configuration cannot be read back: " + e.displayText());
    }
    Object::Ptr answer = callPlugin(function, resetDefaultsAction, "");
    Poco::JSON::Array::Ptr keptNames = new Poco::JSON::Array;
    for (const auto& [name, value] : kept) {
        setTree(config, name, value);
        keptNames->add(name);
    }
    answer->set("config_file", configPath());
    answer->set("kept", keptNames);
    if (!saveConfig()) {
        answer->set("ok", false);
        Poco::JSON::Array::Ptr errors = answer->getArray("errors");
        if (!errors) {
            errors = new Poco::JSON::Array;
            answer->set("errors", errors);
        }
        errors->add("the configuration could not be saved to \"" + configPath() + "\" (see the log)");
    }
    return answer;
}

} // namespace

PluginConfigActionFunction findPluginConfigAction(Poco::SharedLibrary& library)
{
    if (!library.hasSymbol(pluginConfigActionSymbol))
        return nullptr;
    return reinterpret_cast<PluginConfigActionFunction>(library.getSymbol(pluginConfigActionSymbol));
}

const std::vector<std::string>& hostOwnSections()
{
    static const std::vector<std::string> sections{"http", "mqtt", "plugins", "bus", "log"};
    return sections;
}

bool isConfigAction(const std::string& action)
{
    return action == resetDefaultsAction || action == backupAction || action == loadHangarAction ||
           action == pingAction;
}

Object::Ptr runPluginConfigAction(PluginConfigActionFunction function, const std::string& action,
                                  const std::string& argument)
{
    if (!isConfigAction(action))
        return failed(action, "unknown action \"" + action + "\"");
    if (!function)
        return failed(action, "no loaded plug-in offers the configuration routines");
    try {
        if (action == resetDefaultsAction)
            return resetDefaults(function);
        if (action == loadHangarAction) {
            const char* hangarFile = std::getenv(hangarFileOverrideVariable);
            return callPlugin(function, action, hangarFile ? hangarFile : "");
        }
        if (action == pingAction) {
            Poco::Net::IPAddress address;
            if (!Poco::Net::IPAddress::tryParse(argument, address))
                return failed(action, "\"" + argument + "\" is not a numeric IP address");
            return callPlugin(function, action, argument);
        }
        return callPlugin(function, action, "");
    } catch (const Poco::Exception& e) {
        return failed(action, e.displayText());
    } catch (const std::exception& e) {
        return failed(action, e.what());
    }
}

} // namespace vlm::host
