// Loading plug-in libraries: the real plug-in is found, identified and
// instantiated through the registry; anything else is refused with a reason
// that says what is wrong.

#include <gtest/gtest.h>

#include "VelmoraPlugins.h"
#include "app/PluginLoader.h"
#include "app/PluginWebApi.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using vlm::host::loadPlugin;
using vlm::host::PluginLoadError;

const char* const pilotGuid = "{D639B3D5-A951-4BC7-A629-91255EBF9638}";

std::string refusal(const std::vector<std::string>& candidates)
{
    try {
        auto plugin = loadPlugin(candidates);
        plugin.instance.reset();
        plugin.entry.unload();
    } catch (const PluginLoadError& e) {
        return e.what();
    }
    return "accepted";
}

TEST(PluginLoader, LoadsTheRealPluginThroughTheRegistryAndRefusesWhatIsNoPluginSayingWhy)
{
    auto plugin = loadPlugin({"/no/such/dir/libVelmoraPluginPilotControl.so", VELMORA_PILOT_PLUGIN});
    EXPECT_EQ(plugin.libraryPath, VELMORA_PILOT_PLUGIN);
    EXPECT_EQ(plugin.name + " " + std::to_string(plugin.type) + " " + plugin.guid,
              "VelmoraPluginPilotControl 3 " + std::string(pilotGuid));
    ASSERT_TRUE(plugin.instance);
    EXPECT_EQ(vlm::registeredPluginKeys(), std::vector<std::string>{pilotGuid});
    plugin.instance.reset();
    plugin.entry.unload();
    EXPECT_TRUE(vlm::registeredPluginKeys().empty());

    EXPECT_EQ(refusal({"/a/libX.so", "/b/libX.so"}), "no such file (looked for /a/libX.so, /b/libX.so)");
    EXPECT_EQ(refusal({VELMORA_NON_PLUGIN_LIBRARY}),
              "not a Velmora plug-in: missing entry point(s) PluginName, PluginType, PluginGuid, PluginLoad, "
              "PluginUnLoad");
    vlm::test::TempDir dir;
    const std::string reason = refusal({dir.write("libFake.so", "not an ELF file")});
    EXPECT_EQ(reason.rfind("cannot load: ", 0), 0u) << reason;
}

/// Records the paths registered through it.
struct RecordingServer : vlm::WebApiBasic {
    std::vector<std::string> paths;
    void apiRegist(std::string path, vlm::StreamApiHandler) override { paths.push_back(path); }
    void apiRegist(std::string path, vlm::RequestApiHandler) override { paths.push_back(path); }
};

TEST(PluginWebApi, PassesPluginPathsOnAndKeepsHostPathsForTheHost)
{
    vlm::test::LogCapture log;
    auto server = std::make_shared<RecordingServer>();
    vlm::host::PluginWebApi api(server, "PluginX");
    api.apiRegist("/index/api/pilot/getConfig", vlm::RequestApiHandler());
    api.apiRegist("/host/health", vlm::StreamApiHandler());
    api.apiRegist("/host", vlm::RequestApiHandler());
    api.apiRegist("/hostile/x", vlm::StreamApiHandler());
    EXPECT_EQ(server->paths, (std::vector<std::string>{"/index/api/pilot/getConfig", "/hostile/x"}));
    EXPECT_EQ(log.errors("plug-in PluginX may not register /host/health: paths under /host/ belong to the host"), 1);
}

} // namespace
