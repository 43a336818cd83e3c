// The five entry points the host looks up by name.

#include "OutboundWorker.h"
#include "PilotControlP.h"
#include "VelmoraExport.h"
#include "VelmoraPlugins.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace {

constexpr const char* pluginNameText = "VelmoraPluginPilotControl";
constexpr int pluginTypeValue = 3;
constexpr const char* pluginGuidText = "{D639B3D5-A951-4BC7-A629-91255EBF9638}";

std::shared_ptr<vlm::PluginBase> makePilotControl()
{
    return vlm::PilotControlP::createInstance();
}

} // namespace

extern "C" {

VLM_EXPORT const char* PluginName()
{
    return pluginNameText;
}

VLM_EXPORT int PluginType()
{
    return pluginTypeValue;
}

VLM_EXPORT const char* PluginGuid()
{
    return pluginGuidText;
}

VLM_EXPORT void PluginLoad()
{
    const std::string guid = vlm::pluginGuidString();
    vlm::registerPlugin(std::function<std::shared_ptr<vlm::PluginBase>()>(makePilotControl), guid.c_str());
}

VLM_EXPORT void PluginUnLoad()
{
    const std::string guid = vlm::pluginGuidString();
    vlm::unregisterPlugin(guid.c_str());
    // The host may unmap the library next. A plug-in whose last reference a
    // publishing task dropped ended on that task's thread, which is still
    // finishing: it must be joined before this returns.
    if (!vlm::OutboundWorker::joinAllEnded(std::chrono::seconds(5)))
        PCP_LOG_ERROR("PluginUnLoad: a plug-in instance still exists; its publishing thread keeps running");
}

} // extern "C"
