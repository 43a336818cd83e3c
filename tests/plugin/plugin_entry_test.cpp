#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

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
        ASSERT_NE(second, nullptr);
        EXPECT_NE(first.get(), second.get());
        // Nothing in the plug-in fills these: the entry points identify it.
        EXPECT_EQ(first->getType(), 0u);
        EXPECT_EQ(first->getName(), "");
        first->stop();
        first->stop();  // a second stop does nothing
    }
    entry<void (*)()>("PluginUnLoad")();
    EXPECT_EQ(vlm::createPluginInstance(guid), nullptr);
}

// The API list the library exports for hosts that describe their endpoints,
// read through the exported C function as a host reads it.
TEST_F(LoadedPlugin, ExportedApiListMirrorsTheCatalogueWithPathsStreamsAndTheVehicleRule)
{
    const auto function = entry<const char* (*)()>("PluginApiCatalogue");
    ASSERT_NE(function, nullptr);
    const char* text = function();
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(function(), text) << "the host may keep the pointer while the library is loaded";
    auto apis = Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>()->getArray("apis");
    ASSERT_TRUE(apis);
    ASSERT_EQ(apis->size(), 288u);
    std::map<std::string, Poco::JSON::Object::Ptr> byName;
    std::set<std::string> streams;
    int previous = 0;
    int withPath = 0;
    for (std::size_t i = 0; i < apis->size(); ++i) {
        const auto entry = apis->getObject(static_cast<unsigned>(i));
        ASSERT_TRUE(entry) << "entry " << i << " is not an object";
        const auto name = entry->getValue<std::string>("name");
        const int number = entry->getValue<int>("number");
        byName[name] = entry;
        EXPECT_GT(number, previous) << name;
        previous = number;
        EXPECT_EQ(vlm::apiNumber(name), number) << name;
        if (number < vlm::api::httpRegistrationLimit) {
            ++withPath;
            EXPECT_EQ(entry->getValue<std::string>("httpPath"), "/index/api/pilot/" + name);
        } else {
            EXPECT_TRUE(entry->isNull("httpPath")) << name;
        }
        if (entry->getValue<bool>("streaming"))
            streams.insert(name);
    }
    EXPECT_EQ(byName.size(), 288u) << "a name occurs twice";
    EXPECT_EQ(withPath, 285);
    EXPECT_EQ(streams, (std::set<std::string>{"pushTelemetry", "updateProgress", "softUpdateStatus",
                                              "getUpdateProgress", "updateMagneticCompassCali"}));
    EXPECT_TRUE(byName.at("getPhotoCount")->isNull("httpPath"));
    EXPECT_EQ(byName.at("pushTelemetry")->getValue<std::string>("category"), "telementry");
    EXPECT_EQ(byName.at("getHLT")->getValue<std::string>("category"), "multiRotor");
    EXPECT_EQ(byName.at("setTxWifiCmd")->getValue<std::string>("category"), "project");
    EXPECT_TRUE(byName.at("hangerImageTransSwitch")->isNull("category"));
    EXPECT_FALSE(byName.at("hangerImageTransSwitch")->isNull("httpPath"));
    for (const char* stationSide : {"getConfig", "updateStationSetting", "payloadOnlineStatus"})
        EXPECT_FALSE(byName.at(stationSide)->getValue<bool>("needsVehicle")) << stationSide;
    for (const char* vehicleSide : {"setPowerBatteryHeatModel", "pushRoute"})
        EXPECT_TRUE(byName.at(vehicleSide)->getValue<bool>("needsVehicle")) << vehicleSide;
}

std::set<std::string> dynamicSymbols(bool demangle)
{
    std::string command = std::string("nm -D --defined-only ") + (demangle ? "-C " : "") + PLUGIN_LIBRARY_PATH;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::set<std::string> names;
    std::array<char, 4096> line{};
    while (pipe && fgets(line.data(), line.size(), pipe.get())) {
        std::string text(line.data());
        text.erase(text.find_last_not_of("\n") + 1);
        // "<address> <type> <name>"
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
    // What a host links against besides the entry points: the class's
    // factory, constructors, destructors, vtable and regMsgFwdCallbck, each
    // found by the loader in the plug-in itself.
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
