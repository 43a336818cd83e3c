#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include <gtest/gtest.h>
#include <Poco/JSON/Parser.h>

#include "ApiCatalogue.h"
#include "PluginBase.h"
#include "VelmoraPlugins.h"

namespace {

// Loads the built plug-in the way a host does and releases it at the end.
class LoadedPlugin : public ::testing::Test {
protected:
    void SetUp() override
    {
        handle = dlopen(PLUGIN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << dlerror();
    }
    void TearDown() override
    {
        if (handle)
            dlclose(handle);
    }
    template <typename Fn>
    Fn entry(const char* name)
    {
        void* symbol = dlsym(handle, name);
        EXPECT_NE(symbol, nullptr) << name;
        return reinterpret_cast<Fn>(symbol);
    }
    void* handle = nullptr;
};

TEST_F(LoadedPlugin, EntryPointsGiveTheIdentityAndManageTheFactory)
{
    const std::string guid = "{D639B3D5-A951-4BC7-A629-91255EBF9638}";
    EXPECT_STREQ(entry<const char* (*)()>("PluginName")(), "VelmoraPluginPilotControl");
    EXPECT_EQ(entry<int (*)()>("PluginType")(), 3);
    EXPECT_EQ(std::string(entry<const char* (*)()>("PluginGuid")()), guid);
    EXPECT_EQ(vlm::createPluginInstance(guid), nullptr);
    entry<void (*)()>("PluginLoad")();
    auto keys = vlm::registeredPluginKeys();
    EXPECT_EQ(std::count(keys.begin(), keys.end(), guid), 1);
    {
        auto first = vlm::createPluginInstance(guid);
        auto second = vlm::createPluginInstance(guid);
        ASSERT_NE(first, nullptr);
        EXPECT_NE(first.get(), second.get());
    }
    entry<void (*)()>("PluginUnLoad")();
    EXPECT_EQ(vlm::createPluginInstance(guid), nullptr);
}

// The API list hosts read through the exported function: every catalogue
// entry in number order, HTTP paths below 307, the five streams, the category
// and vehicle rule; range edges and names after gaps hold their numbers.
TEST_F(LoadedPlugin, ExportedApiListMirrorsTheCatalogue)
{
    const auto function = entry<const char* (*)()>("PluginApiCatalogue");
    ASSERT_NE(function, nullptr);
    const char* text = function();
    EXPECT_EQ(function(), text) << "the host may keep the pointer while the library is loaded";
    auto apis = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>()->getArray("apis");
    ASSERT_EQ(apis->size(), 288u);
    std::map<std::string, Poco::JSON::Object::Ptr> byName;
    std::set<std::string> streams;
    int previous = 0;
    for (std::size_t i = 0; i < apis->size(); ++i) {
        const auto api = apis->getObject(static_cast<unsigned>(i));
        const auto name = api->getValue<std::string>("name");
        const int number = api->getValue<int>("number");
        byName[name] = api;
        EXPECT_GT(number, std::exchange(previous, number)) << name;
        EXPECT_EQ(vlm::apiNumber(name), number) << name;
        EXPECT_EQ(api->isNull("httpPath") ? "" : api->getValue<std::string>("httpPath"),
                  number < 307 ? "/index/api/pilot/" + name : "");
        if (api->getValue<bool>("streaming"))
            streams.insert(name);
    }
    EXPECT_EQ(byName.size(), 288u) << "a name occurs twice";
    EXPECT_EQ(streams, (std::set<std::string>{"pushTelemetry", "updateProgress", "softUpdateStatus",
                                              "getUpdateProgress", "updateMagneticCompassCali"}));
    const std::pair<const char*, int> edges[] = {
        {"pushTelemetry", 2},    {"payloadOnlineStatus", 24}, {"pushRoute", 27},     {"setLandHangarSnId", 84},
        {"setSearchTime", 86},   {"sendSurfaceTest", 100},    {"getVersionInfo", 103}, {"getUpdateInfo", 113},
        {"resumeReplay", 116},   {"setReplayRate", 122},      {"removeAllFence", 125}, {"enabledOneFence", 132},
        {"hangerImageTransSwitch", 135}, {"getMagCaliDataVT", 138}, {"getCanAileronBattery", 187},
        {"sendEnginePumpCMD", 192}, {"setTxWifiCmd", 242},    {"sendAbort", 245},    {"getHLT", 305},
        {"getDatDirPath", 308},  {"getPhotoCount", 309},      {"setJoystickConnectState", 310}};
    for (const auto& [name, number] : edges)
        EXPECT_EQ(byName.at(name)->getValue<int>("number"), number) << name;
    EXPECT_EQ(byName.at("getHLT")->getValue<std::string>("category"), "multiRotor");
    EXPECT_TRUE(byName.at("hangerImageTransSwitch")->isNull("category"));
    EXPECT_FALSE(byName.at("payloadOnlineStatus")->getValue<bool>("needsVehicle"));
    EXPECT_TRUE(byName.at("pushRoute")->getValue<bool>("needsVehicle"));
}

std::set<std::string> dynamicSymbols(bool demangle)
{
    std::string command = std::string("nm -D --defined-only ") + (demangle ? "-C " : "") + PLUGIN_LIBRARY_PATH;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::set<std::string> names;
    std::array<char, 4096> line{};
    while (pipe && fgets(line.data(), line.size(), pipe.get())) {
        std::string text(line.data());  // "<address> <type> <name>\n"
        text.erase(text.find_last_not_of('\n') + 1);
        const auto second = text.find(' ', text.find(' ') + 1);
        if (second != std::string::npos)
            names.insert(text.substr(second + 1));
    }
    return names;
}

TEST(PluginExports, OnlyTheEntryPointsTheApiListTheReportsAndThePluginClassLeaveTheLibrary)
{
    const std::set<std::string> cFunctions = {"PluginName",   "PluginType",         "PluginGuid",
                                              "PluginLoad",   "PluginUnLoad",       "PluginApiCatalogue",
                                              "PluginLinkHealth", "PluginConfigAction", "PluginMetrics"};
    const auto raw = dynamicSymbols(false);
    for (const auto& name : cFunctions)
        EXPECT_EQ(raw.count(name), 1u) << name << " must be exported undecorated";

    const auto demangled = dynamicSymbols(true);
    ASSERT_FALSE(demangled.empty());
    for (const auto& name : demangled) {
        const bool entryPoint = cFunctions.count(name) == 1;
        const bool pluginClass = name.find("vlm::PilotControlP") != std::string::npos;
        EXPECT_TRUE(entryPoint || pluginClass) << "unexpected export: " << name;
    }
    // What a host links against besides the entry points, each found by the
    // loader in the plug-in itself.
    void* handle = dlopen(PLUGIN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    for (const char* mangled :
         {"_ZN3vlm13PilotControlP14createInstanceEv", "_ZN3vlm13PilotControlPC1Ev", "_ZN3vlm13PilotControlPC2Ev",
          "_ZN3vlm13PilotControlPD0Ev", "_ZN3vlm13PilotControlPD1Ev", "_ZN3vlm13PilotControlPD2Ev",
          "_ZTVN3vlm13PilotControlPE", "_ZN3vlm13PilotControlP16regMsgFwdCallbckEv"}) {
        void* symbol = dlsym(handle, mangled);
        Dl_info where{};
        EXPECT_TRUE(symbol && dladdr(symbol, &where) && where.dli_fname &&
                    std::string(where.dli_fname).find("libVelmoraPluginPilotControl") != std::string::npos)
            << mangled << " is not exported by the plug-in";
    }
    dlclose(handle);
}

} // namespace
