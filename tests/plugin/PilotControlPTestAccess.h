#pragma once

#include <chrono>
#include <future>
#include <memory>

#include "PilotControlP.h"
#include "PilotControlPImpl.h"

namespace vlm {

/// Reaches the private operations of PilotControlP, for tests only.
class PilotControlPTestAccess {
public:
    using Object = Poco::JSON::Object;
    static PilotControlPImpl& impl(PilotControlP& p) { return *p.impl; }
    static void setMqtt(PilotControlP& p, std::shared_ptr<MqttClient> mqtt) { p.mqttClient = std::move(mqtt); }
    static void dispatch(PilotControlP& p, const std::string& topic, const std::string& data)
    {
        p.dispatchServiceEvent(topic, data);
    }
    static void publish(PilotControlP& p, const std::string& payload, const std::string& topic, const std::string& api)
    {
        p.publishMessage(payload, topic, api);
    }
    static void record(PilotControlP& p, int kind, const Object& object, const std::string& topic,
                       const std::string& api)
    {
        p.sendTelemeToMicroService(kind, object, topic, api);
    }
    static unsigned int linkTypeOf(PilotControlP& p, const Object& request) { return p.getLinkType(request); }
    /// Waits until the outbound worker has run everything queued so far, so
    /// that no task still reaches into a test's recorders after it ends.
    static bool drainOutbound(PilotControlP& p, std::chrono::milliseconds limit)
    {
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> ran = done->get_future();
        return p.impl->outbound.post([done] { done->set_value(); }, OutboundClass::answer) &&
               ran.wait_for(limit) == std::future_status::ready;
    }
    static void notifyLinkType(PilotControlP& p, unsigned int linkType) { p.notifyLinkTypeChange(linkType); }
    static void vehicleOnline(PilotControlP& p, const std::string& data) { p.handleVehicleOnlineStatus(data); }
};

} // namespace vlm
