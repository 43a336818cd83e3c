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
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first.get(), vlm::createPluginInstance("{TEMP-KEY}").get());

    vlm::unregisterPlugin("{TEMP-KEY}");
    EXPECT_EQ(vlm::createPluginInstance("{TEMP-KEY}"), nullptr);
    vlm::unregisterPlugin(nullptr);  // ignored
}

TEST(PluginBase, SetAddressTakesTheCallersBufferAndStartSetsAddressAndPort)
{
    // The plug-in then holds the very buffer the caller moved in (too long to
    // be stored inline), not a copy. Emptying the argument proves nothing: the
    // by-value parameter empties it whatever setAddress does.
    DummyPlugin plugin;
    std::string address = "2001:db8:85a3::8a2e:370:7334%some-long-interface-name";
    const std::string expected = address;
    const char* buffer = address.data();
    plugin.setAddress(std::move(address));
    EXPECT_EQ(plugin.getAddress(), expected);
    EXPECT_EQ(plugin.storedAddressData(), buffer);

    plugin.start(nullptr, nullptr, "::1", 7001);
    EXPECT_EQ(plugin.getAddress(), "::1");
    EXPECT_EQ(plugin.getPort(), 7001);
}

} // namespace
