#pragma once

#include <map>
#include <memory>

#include <gtest/gtest.h>

#include <Poco/JSON/Parser.h>

#include "PilotControlPTestAccess.h"
#include "RecordingMqttClient.h"
#include "ThreadPool.h"

namespace vlm::test {

inline Poco::JSON::Object::Ptr parseObject(const std::string& text)
{
    return Poco::JSON::Parser().parse(text).extract<Poco::JSON::Object::Ptr>();
}

/// Expects each of `fields` to be a string member of `object` with that value.
inline void expectFields(const Poco::JSON::Object::Ptr& object, const std::map<std::string, std::string>& fields)
{
    ASSERT_TRUE(object);
    for (const auto& [key, value] : fields)
        EXPECT_EQ(object->getValue<std::string>(key), value) << key;
}

/// A plug-in object with a recording MQTT client and bus, not started: the
/// event bridge is driven through its own operations.
class PluginFixture : public ::testing::Test {
protected:
    using Access = PilotControlPTestAccess;

    void SetUp() override
    {
        Access::setMqtt(*plugin, mqtt);
        plugin->setCallback(bus.callback());
        state().setStationId("station-1");
        state().setPilotId("UAV-1");
    }

    void TearDown() override
    {
        // Queued publishing work would otherwise write into this test's freed recorders.
        ThreadPool::defaultPool().joinAll();
        EXPECT_TRUE(Access::drainOutbound(*plugin, std::chrono::seconds(10)));
        plugin.reset();
    }

    PilotControlPImpl& state() { return Access::impl(*plugin); }

    std::shared_ptr<PilotControlP> plugin = PilotControlP::createInstance();
    std::shared_ptr<RecordingMqttClient> mqtt = std::make_shared<RecordingMqttClient>("station-1");
    BusRecorder bus;
};

} // namespace vlm::test
