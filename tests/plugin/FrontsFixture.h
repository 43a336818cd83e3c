#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "PilotControlPTestAccess.h"
#include "ScriptedService.h"
#include "VelmoraCommon.h"
#include "http/HttpApiServer.h"
#include "mqtt/PahoMqttClient.h"
#include "support/MosquittoBroker.h"

namespace vlm::test {

/// The plug-in started as the host starts it: the real HTTP server on an
/// ephemeral loopback port, the real MQTT client on a broker of the test's
/// own, and a scripted micro service.
class FrontsFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        broker.start();
        vlm::configInstance().setString("mqtt.server_uri", broker.hostPort());
        vlm::configInstance().setString("mqtt.user_name", "");
        vlm::configInstance().setString("mqtt.pawsswd", "");
        server->start();
        mqtt = std::make_shared<PahoMqttClient>(stationClientOptions());
        ASSERT_TRUE(mqtt->connect());
        plugin->start(server, mqtt, "127.0.0.1", service.port);
        // Subscriptions travel on a connection of their own: an event the
        // service publishes before the last of them arrived would be lost.
        ASSERT_TRUE(service.service.wait_for_subscriber("vehicleOnlineStatus", std::chrono::seconds(10)));
    }

    void TearDown() override
    {
        plugin->stop();
        server->stop();
    }

    /// Options of the station's MQTT client, which the plug-in is given.
    virtual MqttClientOptions stationClientOptions()
    {
        MqttClientOptions options;
        options.serverUri = broker.hostPort();
        options.stationSerial = "station-1";
        options.reconnectMinDelay = std::chrono::milliseconds(200);
        return options;
    }

    PilotControlPImpl& state() { return PilotControlPTestAccess::impl(*plugin); }

    /// Reports the vehicle connected (or not) the way the service does, and
    /// waits until the plug-in has taken it in.
    void vehicleConnected(bool connected)
    {
        service.service.publish("pilotConnectState", connected ? "true" : "false");
        for (int i = 0; i < 500 && state().pilotConnected != connected; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_EQ(state().pilotConnected.load(), connected);
    }

    MosquittoBroker broker;
    ScriptedService service;
    std::shared_ptr<HttpApiServer> server = std::make_shared<HttpApiServer>();
    std::shared_ptr<PahoMqttClient> mqtt;
    std::shared_ptr<PilotControlP> plugin = PilotControlP::createInstance();
};

} // namespace vlm::test
