#include "app/PluginLinkHealth.h"

#include <vector>

#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>

namespace vlm::host {
namespace {

constexpr std::size_t firstBufferSize = 4096;

Poco::JSON::Object::Ptr servingInstance(const Poco::JSON::Object& report, const std::string& address,
                                        std::uint16_t port)
{
    const Poco::JSON::Array::Ptr instances = report.getArray("instances");
    if (!instances)
        return nullptr;
    for (std::size_t i = 0; i < instances->size(); ++i) {
        const Poco::JSON::Object::Ptr instance = instances->getObject(static_cast<unsigned>(i));
        if (instance && instance->optValue<std::string>("service_address", "") == address &&
            instance->optValue<int>("service_port", -1) == port)
            return instance;
    }
    return nullptr;
}

} // namespace

PluginLinkHealthFunction findPluginLinkHealth(Poco::SharedLibrary& library)
{
    if (!library.hasSymbol(pluginLinkHealthSymbol))
        return nullptr;
    return reinterpret_cast<PluginLinkHealthFunction>(library.getSymbol(pluginLinkHealthSymbol));
}

std::optional<std::string> readPluginLinkHealth(PluginLinkHealthFunction function, std::size_t limit)
{
    std::vector<char> buffer(firstBufferSize);
    // The report may grow between two calls; a third try settles it.
    for (int attempt = 0; attempt < 3; ++attempt) {
        const std::size_t length = function(buffer.data(), buffer.size());
        if (length < buffer.size())
            return std::string(buffer.data(), length);
        if (length > limit)
            return std::nullopt;
        buffer.resize(length + 1);
    }
    return std::nullopt;
}

void addPluginLinkHealth(Poco::JSON::Object& service, const std::string& report, const std::string& address,
                         std::uint16_t port)
{
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(report);
        if (parsed.type() != typeid(Poco::JSON::Object::Ptr))
            return;
        const Poco::JSON::Object::Ptr instance =
            servingInstance(*parsed.extract<Poco::JSON::Object::Ptr>(), address, port);
        const Poco::JSON::Object::Ptr links = instance ? instance->getObject("links") : nullptr;
        if (!links)
            return;
        Poco::JSON::Object::Ptr ages = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        Poco::JSON::Object::Ptr reconnects = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        for (const char* name : {"call", "subscription"}) {
            const Poco::JSON::Object::Ptr link = links->getObject(name);
            ages->set(name, link ? link->get("last_frame_age_ms") : Poco::Dynamic::Var());
            reconnects->set(name, link ? link->get("reconnects") : Poco::Dynamic::Var());
        }
        service.set("last_frame_age_ms", ages);
        service.set("reconnects", reconnects);
        const Poco::JSON::Object::Ptr counters = instance->getObject("counters");
        service.set("counters", counters ? Poco::Dynamic::Var(counters) : Poco::Dynamic::Var(Poco::JSON::Object::Ptr(new Poco::JSON::Object)));
    } catch (const Poco::Exception&) {
        // A report that breaks its contract adds nothing.
    }
}

} // namespace vlm::host
