#include <dlfcn.h>

#include <gtest/gtest.h>

#include "VelmoraPlugins.h"

namespace {

// Loads the built plug-in as a host does: the entry points and the class a host
// links against are found in the plug-in itself, and the factory comes and goes.
TEST(LoadedPlugin, ExportsTheEntryPointsAndTheClassAHostLinksAgainst)
{
    void* handle = dlopen(PLUGIN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto entry = [handle](const char* name) {
        void* symbol = dlsym(handle, name);
        Dl_info where{};
        EXPECT_TRUE(symbol && dladdr(symbol, &where) && where.dli_fname &&
                    std::string(where.dli_fname).find("libVelmoraPluginPilotControl") != std::string::npos)
            << name << " is not exported by the plug-in";
        return symbol;
    };
    for (const char* mangled :
         {"_ZN3vlm13PilotControlP14createInstanceEv", "_ZN3vlm13PilotControlPC1Ev", "_ZN3vlm13PilotControlPC2Ev",
          "_ZN3vlm13PilotControlPD0Ev", "_ZN3vlm13PilotControlPD1Ev", "_ZN3vlm13PilotControlPD2Ev",
          "_ZTVN3vlm13PilotControlPE", "_ZN3vlm13PilotControlP16regMsgFwdCallbckEv", "PluginApiCatalogue",
          "PluginLinkHealth", "PluginConfigAction", "PluginMetrics"})
        entry(mangled);
    const std::string guid = "{D639B3D5-A951-4BC7-A629-91255EBF9638}";
    ASSERT_TRUE(entry("PluginName") && entry("PluginType") && entry("PluginLoad") && entry("PluginUnLoad"));
    EXPECT_EQ(reinterpret_cast<const char* (*)()>(entry("PluginGuid"))(), guid);
    EXPECT_EQ(vlm::createPluginInstance(guid), nullptr);
    reinterpret_cast<void (*)()>(entry("PluginLoad"))();
    {
        auto first = vlm::createPluginInstance(guid);
        ASSERT_NE(first, nullptr);
        EXPECT_NE(first.get(), vlm::createPluginInstance(guid).get());
    }
    reinterpret_cast<void (*)()>(entry("PluginUnLoad"))();
    EXPECT_EQ(vlm::createPluginInstance(guid), nullptr);
    dlclose(handle);
}

} // namespace
