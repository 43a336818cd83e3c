// Lifecycle of the plug-in object: creation, start, stop, destruction.

#include "PilotControlP.h"

#include <random>

#include "LinkHealth.h"
#include "MqttClient.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "ServiceTopics.h"
#include "VelmoraCommon.h"
#include "rpc/rpc_client.h"
#include "uav/PilotControlCommon/ConfigKeys.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

constexpr auto settingWait = std::chrono::milliseconds(5000);

// "velmora-" and 8 characters from a-z0-9, drawn from one generator seeded
// once per process.
std::string generatedStationId()
{
    static std::mutex generatorMutex;
    static std::mt19937 generator{std::random_device{}()};
    std::uniform_int_distribution<int> pick(0, 35);
    std::string id = "velmora-";
    std::lock_guard<std::mutex> lock(generatorMutex);
    for (int i = 0; i < 8; ++i) {
        const int value = pick(generator);
        id += value < 26 ? static_cast<char>('a' + value) : static_cast<char>('0' + value - 26);
    }
    return id;
}

// The result of an asynchronous call, waited for like a synchronous one.
pilot_rpc::req_result awaitSetting(pilot_rpc::future_result<pilot_rpc::req_result>& pending)
{
    if (pending.future.wait_for(settingWait) != std::future_status::ready)
        throw std::out_of_range("timeout or deferred");
    return pending.future.get();
}

} // namespace

PilotControlP::PilotControlP() : impl(std::make_shared<PilotControlPImpl>()) {}

std::shared_ptr<PilotControlP> PilotControlP::createInstance()
{
    // The constructor is private, so make_shared cannot reach it.
    std::shared_ptr<PilotControlP> plugin(new PilotControlP());
    plugin->impl->self = plugin;
    registerLinkHealth(plugin->impl);
    return plugin;
}

PilotControlP::~PilotControlP()
{
    impl->pilotConnected = false;
    std::string topic;
    const std::string stationId = impl->getStationId();
    if (impl->sixAxisArSeat <= 0) {
        const std::string guid = impl->appType != 0 ? topicGuidAppTypeOther() : topicGuidAppTypeZero();
        topic = texts::pilotTopicPrefix + guid + "/" + stationId + texts::commandTopicSuffix;
    } else {
        topic = "/" + stationId + texts::telemetryTopicSuffix;
    }
    if (mqttClient) {
        try {
            mqttClient->Unsubscribe(topic);
        } catch (const std::exception& e) {
            PCP_LOG_ERROR("mqtt unsubscribe failed: %s", e.what());
        }
    }
    PCP_LOG_INFO("mqtt unsubscribe topic: %s", topic.c_str());
    stop();
}

void PilotControlP::start(std::shared_ptr<WebApiBasic> web, std::shared_ptr<MqttClient> mqtt, std::string address,
                          unsigned short port)
{
    PluginBase::start(web, mqtt, address, port);
    impl->stopped = false;
    {
        std::lock_guard<std::mutex> lock(impl->identityMutex);
        impl->serviceAddress = address;
        impl->servicePort = port;
    }
    connectServiceClients(address, port);
    try {
        auto client = impl->callClient();
        if (!client)
            throw std::invalid_argument("rpc client is null");

        impl->appType = client->call<5000, int>(texts::procGetIntConfig, std::string(cfg::stationAppType));
        if (impl->appType == 0) {
            impl->localMqtt = true;
            readLocalBrokerSettings();
        }
        impl->setStationId(mqttClient ? mqttClient->getstation() : std::string());
        impl->setPilotId(client->call<5000, std::string>(texts::procGetStringConfig, std::string(cfg::vehiclePilotId)));

        auto seat = client->call_future(texts::procGetBoolConfig, std::string(cfg::vehicleSixAxisArSeat));
        impl->sixAxisArSeat = awaitSetting(seat).value<bool>() ? 1 : 0;
        impl->linkType = client->call<5000, int>(texts::procGetIntConfig, std::string(cfg::stationLinkType));

        if (impl->getStationId().empty())
            impl->setStationId(generatedStationId());

        auto announced = client->call_future(texts::procPilotControlBase, impl->getStationId(),
                                             std::string(texts::apiSetSelfGuid));
        awaitSetting(announced);

        for (const char* topic : serviceTopics::beforeApis)
            rpcSubscribe(topic);

        installApi();
        rpcSubscribeVehicleOnlineStatus();
        PCP_LOG_INFO("report rpc subscribe done.");
        client->call<5000>(texts::procReportRpcSub, true);
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("rpc subscribe failed: %s", e.displayText().c_str());
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("rpc subscribe failed: %s", e.what());
    }
}

void PilotControlP::connectServiceClients(const std::string& address, unsigned short port)
{
    try {
        auto call = std::make_shared<pilot_rpc::rpc_client>();
        auto sub = std::make_shared<pilot_rpc::rpc_client>();
        {
            std::lock_guard<std::mutex> lock(impl->clientMutex);
            impl->rpcClient = call;
            impl->subClient = sub;
        }
        call->enable_auto_reconnect();
        call->enable_auto_heartbeat();
        if (!call->connect(address, port, false, 3))
            PCP_LOG_ERROR("pilot rpc connect to pilot control micro service failed, address: %s, port: %d",
                          address.c_str(), static_cast<int>(port));
        sub->enable_auto_reconnect();
        sub->enable_auto_heartbeat();
        if (!sub->connect(address, port, false, 3))
            PCP_LOG_ERROR("pilot subscribe rpc connect to pilot control micro service failed, address: %s, port: %d",
                          address.c_str(), static_cast<int>(port));
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("connect to pilot control micro service failed, address: %s, port: %d, reason: %s",
                      address.c_str(), static_cast<int>(port), e.what());
    }
}

void PilotControlP::readLocalBrokerSettings()
{
    // Read for its checks only: a host configuration without the broker keys
    // is a broken one and start reports it. Nothing keeps the values.
    const auto& config = configInstance();
    Poco::JSON::Object broker;
    broker.set("serverUri", cfg::mqttServerUriDefault);
    broker.set("serverUri", config.getString(cfg::mqttServerUri));
    broker.set("userName", config.getString(cfg::mqttUserName));
    broker.set("passwd", config.getString(cfg::mqttPawsswd));
}

void PilotControlP::stop()
{
    impl->stopped = true;
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

void PilotControlP::regMsgFwdCallbck() {}

} // namespace vlm
