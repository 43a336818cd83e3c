#include <gtest/gtest.h>

#include "PluginBase.h"

namespace {

class AddressedPlugin : public vlm::PluginBase {
public:
    void stop() override {}
    void pushMessage(std::string) override {}
    const char* storedAddressData() const { return address.data(); }
};

TEST(PluginBase, SetAddressTakesTheCallersBufferInsteadOfACopy)
{
    // The plug-in holds the very buffer the caller moved in (too long to be
    // stored inline), not a copy. An emptied argument would prove nothing:
    // the by-value parameter empties it whatever setAddress does.
    AddressedPlugin plugin;
    std::string address = "2001:db8:85a3::8a2e:370:7334%some-long-interface-name";
    const std::string expected = address;
    const char* buffer = address.data();
    plugin.setAddress(std::move(address));
    EXPECT_EQ(plugin.getAddress(), expected);
    EXPECT_EQ(plugin.storedAddressData(), buffer);
}

} // namespace
