// pilot-rpc record subscribes to what the plug-in subscribes to: the real
// plug-in is started against the service peer and its subscriptions are
// compared with the tool's list.

#include <set>

#include <gtest/gtest.h>

#include "VelmoraCommon.h"
#include "plugin/PluginFixture.h"
#include "plugin/ScriptedService.h"
#include "record_topics.h"

namespace vlm::test {
namespace {

class RecordTopics : public PluginFixture {
protected:
    void TearDown() override
    {
        plugin->stop();
        PluginFixture::TearDown();
    }

    ScriptedService service;
};

TEST_F(RecordTopics, AreExactlyThePluginsSubscriptions)
{
    configInstance().setString("mqtt.server_uri", "127.0.0.1:1883");
    configInstance().setString("mqtt.user_name", "");
    configInstance().setString("mqtt.pawsswd", "");
    plugin->start(nullptr, mqtt, "127.0.0.1", service.port);
    const auto& tool = pilot_rpc_tool::record_topics();
    ASSERT_TRUE(service.service.wait_for_frames(
        [&](const std::vector<pilot_rpc::received_frame>& frames) {
            std::size_t subscriptions = 0;
            for (const auto& f : frames)
                subscriptions += f.frame_type == 1 ? 1 : 0;
            return subscriptions >= tool.size();
        },
        std::chrono::seconds(5)))
        << service.service.frames().size() << " frames, " << service.calls().size() << " calls";
    std::set<std::string> pluginTopics;
    for (auto id : service.service.connections())
        for (const auto& topic : service.service.subscriptions(id))
            pluginTopics.insert(topic);
    EXPECT_EQ(pluginTopics, std::set<std::string>(tool.begin(), tool.end()));
    EXPECT_EQ(tool.size(), pluginTopics.size()) << "the tool's list repeats a topic";
}

} // namespace
} // namespace vlm::test
