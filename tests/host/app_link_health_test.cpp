// Reading the plug-in's own report of its service links (the library's
// PluginLinkHealth): untrusted text, of any length, for several instances.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "app/PluginLinkHealth.h"

namespace {

TEST(PluginLinkHealthReport, ShowsOnlyTheInstanceServingTheAddressAndReadsReportsOfAnyLength)
{
    const std::string report = R"({"instances":[
        {"service_address":"127.0.0.1","service_port":1,"links":{"call":{"reconnects":9}},"counters":{"x":1}},
        {"service_address":"127.0.0.1","service_port":7700,"links":{"subscription":{"reconnects":2}}}]})";
    Poco::JSON::Object service;
    vlm::host::addPluginLinkHealth(service, report, "127.0.0.1", 7700);
    EXPECT_TRUE(service.getObject("reconnects")->isNull("call"));
    EXPECT_EQ(service.getObject("reconnects")->getValue<int>("subscription"), 2);
    // A report without counters still shows an (empty) object, owned like the rest.
    ASSERT_TRUE(service.getObject("counters"));
    EXPECT_EQ(service.getObject("counters")->size(), 0u);

    Poco::JSON::Object untouched;
    vlm::host::addPluginLinkHealth(untouched, report, "127.0.0.1", 7701);
    vlm::host::addPluginLinkHealth(untouched, "not json", "127.0.0.1", 7700);
    EXPECT_EQ(untouched.size(), 0u);

    static const std::string text = "{\"instances\":[]," + std::string(10000, ' ') + "}";
    auto function = [](char* buffer, std::size_t size) -> std::size_t {
        if (buffer && size > 0) {
            const std::size_t n = std::min(size - 1, text.size());
            std::memcpy(buffer, text.data(), n);
            buffer[n] = '\0';
        }
        return text.size();
    };
    EXPECT_EQ(vlm::host::readPluginLinkHealth(function), text);
    EXPECT_FALSE(vlm::host::readPluginLinkHealth(function, 5000).has_value());
}

} // namespace
