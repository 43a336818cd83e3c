// The five entry points the host looks up by name (C linkage, exported).

#include "HelloPlugin.h"
#include "VelmoraExport.h"
#include "VelmoraPlugins.h"

extern "C" {

VLM_EXPORT const char* PluginName()
{
    return hello::pluginName;
}

VLM_EXPORT int PluginType()
{
    return hello::pluginType;
}

VLM_EXPORT const char* PluginGuid()
{
    return hello::pluginGuid;
}

/// Registers the factory; the host then makes the instance through the
/// registry under the GUID.
VLM_EXPORT void PluginLoad()
{
    vlm::registerPlugin([] { return std::make_shared<hello::HelloPlugin>(); }, hello::pluginGuid);
}

/// Called when the host unloads the plug-in, after its instance is released.
VLM_EXPORT void PluginUnLoad()
{
    vlm::unregisterPlugin(hello::pluginGuid);
}

} // extern "C"
