// Lifecycle of the plug-in object: creation, start, stop, destruction.

#include "PilotControlP.h"

#include "MqttClient.h"
#include "PilotControlPImpl.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {

PilotControlP::PilotControlP() : impl(std::make_shared<PilotControlPImpl>()) {}

std::shared_ptr<PilotControlP> PilotControlP::createInstance()
{
    // The constructor is private, so make_shared cannot reach it.
    return std::shared_ptr<PilotControlP>(new PilotControlP());
}

PilotControlP::~PilotControlP()
{
    impl->pilotConnected = false;
    std::string topic;
    const std::string stationId = impl->getStationId();
    if (impl->sixAxisArSeat <= 0) {
        const std::string guid = impl->appType != 0 ? topicGuidAppTypeOther() : topicGuidAppTypeZero();
        topic = "/velmora/pilot/" + guid + "/" + stationId + "/cmd";
    } else {
        topic = "/" + stationId + "/pushTelemetry";
    }
    if (mqttClient) {
        try {
            mqttClient->Unsubscribe(topic);
        } catch (const std::exception& e) {
            PCP_LOG_ERROR("mqtt unsubscribe failed: %s", e.what());
        }
    }
    PCP_LOG_INFO("mqtt unsubscribe topic: %s", topic.c_str());
}

void PilotControlP::start(std::shared_ptr<WebApiBasic> webApi, std::shared_ptr<MqttClient> mqtt, std::string address,
                          unsigned short port)
{
    PluginBase::start(webApi, mqtt, address, port);
}

void PilotControlP::stop()
{
    std::shared_ptr<pilot_rpc::rpc_client> call;
    std::shared_ptr<pilot_rpc::rpc_client> sub;
    {
        std::lock_guard<std::mutex> lock(impl->clientMutex);
        call.swap(impl->rpcClient);
        sub.swap(impl->subClient);
    }
    // Released outside the lock: a client's destructor joins its I/O thread,
    // whose handlers may be waiting to read the clients.
    call.reset();
    sub.reset();
}

void PilotControlP::pushMessage(std::string message) {}

void PilotControlP::regMsgFwdCallbck() {}

} // namespace vlm
