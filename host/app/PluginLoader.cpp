#include "app/PluginLoader.h"

#include <Poco/Exception.h>
#include <Poco/File.h>

#include "VelmoraPlugins.h"

namespace vlm::host {

const char* const pluginEntryPointNames[5] = {"PluginName", "PluginType", "PluginGuid", "PluginLoad", "PluginUnLoad"};

namespace {

std::string firstExisting(const std::vector<std::string>& candidates)
{
    std::string tried;
    for (const auto& candidate : candidates) {
        try {
            if (Poco::File(candidate).exists())
                return candidate;
        } catch (const Poco::Exception&) {
            // An unreadable folder counts as "not there".
        }
        tried += (tried.empty() ? "" : ", ") + candidate;
    }
    throw PluginLoadError("no such file (looked for " + tried + ")");
}

template <typename Function>
Function symbol(Poco::SharedLibrary& library, const char* name)
{
    return reinterpret_cast<Function>(library.getSymbol(name));
}

PluginEntryPoints entryPoints(Poco::SharedLibrary& library)
{
    std::string missing;
    for (const char* name : pluginEntryPointNames) {
        if (!library.hasSymbol(name))
            missing += (missing.empty() ? "" : ", ") + std::string(name);
    }
    if (!missing.empty())
        throw PluginLoadError("not a Velmora plug-in: missing entry point(s) " + missing);
    PluginEntryPoints entry;
    entry.name = symbol<const char* (*)()>(library, "PluginName");
    entry.type = symbol<int (*)()>(library, "PluginType");
    entry.guid = symbol<const char* (*)()>(library, "PluginGuid");
    entry.load = symbol<void (*)()>(library, "PluginLoad");
    entry.unload = symbol<void (*)()>(library, "PluginUnLoad");
    return entry;
}

} // namespace

LoadedPlugin loadPlugin(const std::vector<std::string>& candidates)
{
    LoadedPlugin plugin;
    plugin.libraryPath = firstExisting(candidates);
    plugin.library = std::make_shared<Poco::SharedLibrary>();
    try {
        // Local symbols: each plug-in carries its own copies of library code,
        // which must not be bound to another plug-in's.
        plugin.library->load(plugin.libraryPath, Poco::SharedLibrary::SHLIB_LOCAL);
    } catch (const Poco::Exception& e) {
        throw PluginLoadError("cannot load: " + e.displayText());
    }
    plugin.entry = entryPoints(*plugin.library);

    const char* name = plugin.entry.name();
    const char* guid = plugin.entry.guid();
    if (!guid || !*guid)
        throw PluginLoadError("PluginGuid() returned no GUID");
    plugin.name = name ? name : "";
    plugin.guid = guid;
    plugin.type = plugin.entry.type();

    plugin.entry.load();
    try {
        plugin.instance = createPluginInstance(plugin.guid);
    } catch (const std::exception& e) {
        plugin.entry.unload();
        throw PluginLoadError("the plug-in's factory failed: " + std::string(e.what()));
    }
    if (!plugin.instance) {
        plugin.entry.unload();
        throw PluginLoadError("PluginLoad() registered no factory under the GUID " + plugin.guid);
    }
    return plugin;
}

} // namespace vlm::host
