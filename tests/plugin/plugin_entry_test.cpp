#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <set>

#include <gtest/gtest.h>

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
