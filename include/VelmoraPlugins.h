#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "VelmoraExport.h"

namespace vlm {

class PluginBase;

using PluginFactory = std::function<std::shared_ptr<PluginBase>()>;

/// Records a factory under a key (a plug-in's GUID). The key is copied; a later
/// registration under the same key replaces the earlier one. Thread-safe.
VLM_EXPORT void registerPlugin(PluginFactory factory, const char* key);

/// Removes what was registered under the key; unknown keys are ignored.
VLM_EXPORT void unregisterPlugin(const char* key);

/// Makes a new instance through the factory registered under the key, or
/// returns null when none is. The factory runs outside the registry's lock.
VLM_EXPORT std::shared_ptr<PluginBase> createPluginInstance(const std::string& key);

/// The keys registered right now, in sorted order.
VLM_EXPORT std::vector<std::string> registeredPluginKeys();

} // namespace vlm
