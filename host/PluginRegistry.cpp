#include "VelmoraPlugins.h"

#include <map>
#include <mutex>

namespace vlm {
namespace {

struct Registry {
    std::mutex mutex;                          // guards factories
    std::map<std::string, PluginFactory> factories;
};

Registry& registry()
{
    static Registry* instance = new Registry;  // lives until process exit
    return *instance;
}

} // namespace

void registerPlugin(PluginFactory factory, const char* key)
{
    if (!key)
        return;
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.factories[std::string(key)] = std::move(factory);
}

void unregisterPlugin(const char* key)
{
    if (!key)
        return;
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.factories.erase(std::string(key));
}

std::shared_ptr<PluginBase> createPluginInstance(const std::string& key)
{
    PluginFactory factory;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.factories.find(key);
        if (it == r.factories.end() || !it->second)
            return nullptr;
        factory = it->second;
    }
    return factory();
}

std::vector<std::string> registeredPluginKeys()
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::vector<std::string> keys;
    keys.reserve(r.factories.size());
    for (const auto& entry : r.factories)
        keys.push_back(entry.first);
    return keys;
}

} // namespace vlm
