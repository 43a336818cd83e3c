#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "PluginBase.h"
#include "VelmoraPlugins.h"

namespace {

class DummyPlugin : public vlm::PluginBase {
public:
    void stop() override {}
    void pushMessage(std::string) override {}
    const char* storedAddressData() const { return address.data(); }
};

TEST(PluginRegistry, KeepsItsOwnCopyOfTheKeyAndMakesAFreshInstancePerCall)
{
    {
        std::string key = "{TEMP-KEY}";
        vlm::registerPlugin([] { return std::make_shared<DummyPlugin>(); }, key.c_str());
        key.assign("overwritten-buffer");  // the registry must not hold our buffer
    }
    auto first = vlm::createPluginInstance("{TEMP-KEY}");
    auto second = vlm::createPluginInstance("{TEMP-KEY}");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first.get(), second.get());

    vlm::unregisterPlugin("{TEMP-KEY}");
    EXPECT_EQ(vlm::createPluginInstance("{TEMP-KEY}"), nullptr);
    vlm::unregisterPlugin("{TEMP-KEY}");  // unknown keys are ignored
    vlm::unregisterPlugin(nullptr);
}

TEST(PluginRegistry, SurvivesConcurrentRegistrationAndLookup)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                const std::string key = "k" + std::to_string(t) + "-" + std::to_string(i % 5);
                vlm::registerPlugin([] { return std::make_shared<DummyPlugin>(); }, key.c_str());
                EXPECT_NE(vlm::createPluginInstance(key), nullptr);
                vlm::unregisterPlugin(key.c_str());
            }
        });
    }
    for (auto& th : threads)
        th.join();
    for (const auto& key : vlm::registeredPluginKeys())
        EXPECT_NE(key.rfind("k", 0), 0u) << key;
}

TEST(PluginBase, AccessorsStartEmptyAndSetAddressTakesTheString)
{
    DummyPlugin plugin;
    EXPECT_EQ(plugin.getType(), 0u);
    EXPECT_EQ(plugin.getName(), "");
    EXPECT_EQ(plugin.getAddress(), "");
    EXPECT_EQ(plugin.getPort(), 0);

    // The argument is emptied by handing its buffer on: the plug-in then holds
    // the very buffer the caller moved in (too long to be stored inline), not
    // a copy. A copying setAddress would leave the argument full.
    std::string address = "2001:db8:85a3::8a2e:370:7334%some-long-interface-name";
    const std::string expected = address;
    const char* buffer = address.data();
    plugin.setAddress(std::move(address));
    plugin.setPort(9000);
    EXPECT_EQ(plugin.getAddress(), expected);
    EXPECT_EQ(plugin.storedAddressData(), buffer);
    EXPECT_EQ(plugin.getPort(), 9000);

    plugin.start(nullptr, nullptr, "::1", 7001);
    EXPECT_EQ(plugin.getAddress(), "::1");
    EXPECT_EQ(plugin.getPort(), 7001);
}

} // namespace
