// What happens to each event the micro service publishes on a subscribed topic.

#include <atomic>
#include <cstdlib>

#include <Poco/JSON/Parser.h>

#include "ApiCatalogue.h"
#include "MqttClient.h"
#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "ThreadPool.h"
#include "VelmoraCommon.h"
#include "rpc/rpc_client.h"
#include "uav/PilotControlCommon/ConfigKeys.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

// Process-wide counter for the "msgId" of wrapped events; the first is "0".
std::atomic<uint64_t> envelopeCounter{0};

// The interval the service asks for arrives 100 above what the link uses, and
// is kept inside 100..900.
int telemetryIntervalFrom(const std::string& text)
{
    // Wider than int: the service may send the lowest int, and 100 below it
    // must still count as "0 or less".
    long long value = static_cast<long long>(std::atoi(text.c_str())) - 100;
    if (value <= 0)
        value = 100;
    if (value >= 1000)
        value = 900;
    return static_cast<int>(value);
}

Poco::JSON::Object::Ptr parseEventObject(const std::string& text)
{
    Poco::JSON::Parser parser;
    Poco::Dynamic::Var parsed = parser.parse(text);
    if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
        return parsed.extract<Poco::JSON::Object::Ptr>();
    return new Poco::JSON::Object;
}

} // namespace

void PilotControlP::rpcSubscribe(const std::string& topic)
{
    auto client = impl->subscriptionClient();
    if (!client)
        return;
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    client->subscribe(topic, [weakSelf, topic](std::string_view data) {
        if (auto self = weakSelf.lock())
            self->dispatchServiceEvent(topic, data);
    });
}

void PilotControlP::dispatchServiceEvent(const std::string& topic, std::string_view data)
{
    const std::string text(data);
    try {
        if (topic == texts::uavData2MaterCtl) {
            const std::string outTopic =
                std::string(texts::pilotOutTopicPrefix) + impl->getPilotId() + texts::pilotOutTopicSuffix;
            auto mqtt = mqttClient;
            impl->outbound.post(
                [mqtt, text, outTopic] {
                    if (mqtt)
                        mqtt->PublishMessage(text, outTopic, 0, 0, 1);
                },
                OutboundClass::event, text.size());
            return;
        }
        if (topic == texts::pilotConnectState) {
            if (text == "true") {
                impl->pilotConnected = true;
                PCP_LOG_INFO("pilot connected!");
            } else if (text == "false") {
                impl->pilotConnected = false;
                impl->telemetryPublished = false;
                PCP_LOG_INFO("pilot disconnected!");
            }
            return;
        }
        if (topic == texts::setTelemFrequency) {
            impl->telemFrequency = telemetryIntervalFrom(text);
            PCP_LOG_INFO("setTelemFrequency: %d", impl->telemFrequency.load());
            return;
        }
        if (topic == texts::pushUavSn) {
            if (!text.empty() && text != impl->getPilotId())
                impl->setPilotId(text);
            return;
        }
        if (topic.find(serviceFunctionName(0)) != std::string::npos) {
            const std::string cloudTopic = std::string(texts::pilotTopicPrefix) + topicGuidAppTypeZero() + "/" +
                                           impl->getStationId() + texts::commandTopicSuffix;
            std::weak_ptr<PilotControlP> weakSelf = impl->self;
            // The service's answers to cloud commands.
            impl->outbound.post(
                [weakSelf, text, cloudTopic, topic] {
                    if (auto self = weakSelf.lock())
                        self->publishMessage(text, cloudTopic, topic);
                },
                OutboundClass::answer, text.size());
            return;
        }
        if (topic == serviceFunctionName(2) && callback) {
            callback(text);
            return;
        }
        wrapAndPublishEvent(topic, text);
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("%s: %s", topic.c_str(), e.displayText().c_str());
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("%s: %s", topic.c_str(), e.what());
    }
}

void PilotControlP::cacheServiceEvent(int apiNumber, const std::string& text)
{
    std::lock_guard<std::mutex> lock(impl->cacheMutex);
    switch (apiNumber) {
    case api::pushTelemetry:
        impl->lastTelemetry = text;
        break;
    case api::pushRoute:
    case api::syncRoute:
    case api::deleteWayPointList:
        impl->lastRoute = text;
        impl->lastProgress.clear();
        break;
    case api::updateProgress:
        impl->lastProgress = text;
        break;
    case api::getRunInfo:
        impl->lastRunInfo = text;
        break;
    case api::getBinInfo:
        impl->lastBinInfo = text;
        break;
    case api::softUpload:
        impl->lastSoftUpload = text;
        PCP_LOG_INFO("software res: %s", text.c_str());
        break;
    case api::softUpdateStatus:
        impl->lastSoftUpdateStatus = text;
        break;
    case api::getUpdateProgress:
        impl->lastUpdateProgress = text;
        break;
    case api::updateMagneticCompassCali:
        impl->lastMagCompassCali = text;
        break;
    default:
        break;
    }
}

void PilotControlP::wrapAndPublishEvent(const std::string& topic, const std::string& text)
{
    Poco::JSON::Object::Ptr message = parseEventObject(text);
    if (auto number = apiNumber(topic))
        cacheServiceEvent(*number, text);

    const std::string stationId = impl->getStationId();
    const std::string guid = impl->appType != 0 ? topicGuidAppTypeOther() : topicGuidAppTypeZero();
    const std::string groundTopic = std::string(texts::pilotTopicPrefix) + guid + "/" + stationId +
                                    texts::commandTopicSuffix;

    if (impl->getPilotId().empty() && topic == texts::pilotConnect) {
        if (auto client = impl->callClient())
            impl->setPilotId(client->call<5000, std::string>(texts::procGetStringConfig, std::string(cfg::vehiclePilotId)));
    }
    const std::string pilotId = impl->getPilotId();
    message->set("id", pilotId);

    Poco::JSON::Object envelope(Poco::JSON_PRESERVE_KEY_ORDER);
    envelope.set("api", topic);
    envelope.set("type", "response");
    envelope.set("target", "/");
    envelope.set("from", stationId);
    envelope.set("pilot_id", pilotId);
    envelope.set("message", message);
    envelope.set("msgId", std::to_string(envelopeCounter.fetch_add(1)));

    if (topic == texts::fireSearchInfo) {
        envelope.set("type", "request");
        const std::string payload = jsonToString(envelope);
        const std::string edgeTopic =
            std::string(texts::edgeMasterTopicPrefix) + topicGuidAppTypeZero() + texts::edgeMasterTopicSuffix;
        auto mqtt = mqttClient;
        impl->outbound.post(
            [mqtt, payload, edgeTopic, topic] {
                const bool sent = mqtt && mqtt->PublishMessage(payload, edgeTopic, 2, 0, 1);
                PCP_LOG_INFO("topic: %s, msg: %s, ret: %d", topic.c_str(), payload.c_str(), sent ? 1 : 0);
            },
            OutboundClass::event, payload.size());
        return;
    }

    const std::string payload = jsonToString(envelope);
    const std::size_t payloadBytes = payload.size();
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    auto publish = [weakSelf, payload, groundTopic, topic] {
        auto self = weakSelf.lock();
        if (!self)
            return;
        // With the station's own broker on a link of type 1, the link itself
        // carries the answers to the ground; publishing them again would double them.
        if (self->impl->localMqtt && self->impl->linkType == 1)
            return;
        self->publishMessage(payload, groundTopic, topic);
    };
    // A drop is counted and logged by the sequence's queue.
    impl->publications.push(std::move(publish),
                            apiNumber(topic) == api::pushTelemetry ? OutboundClass::staleTelemetry
                                                                   : OutboundClass::event,
                            payloadBytes);
    startPublicationDrain();
}

void PilotControlP::startPublicationDrain()
{
    // Whichever thread drains, the sequence runs one publication at a time in
    // arrival order; the drain holds the plug-in only while it runs.
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    ThreadPool& pool = ThreadPool::defaultPool();
    if (pool.hasFreeThread()) {
        try {
            pool.start([weakSelf] {
                if (auto self = weakSelf.lock())
                    self->impl->publications.drain();
            });
            return;
        } catch (const Poco::NoThreadAvailableException&) {
            // Taken between the check and the start: fall through to the worker.
        }
    }
    // The RPC I/O thread must not wait for the broker: the worker drains.
    // One drain waiting there is enough, as it takes everything queued by the
    // time it runs.
    if (impl->drainPosted.exchange(true))
        return;
    // Lowers the flag when the posted drain is gone, run or dropped from a
    // full queue, so a lost drain never stops later ones being posted.
    std::shared_ptr<void> ticket(nullptr, [weakSelf](void*) {
        if (auto self = weakSelf.lock())
            self->impl->drainPosted = false;
    });
    const bool posted = impl->outbound.post(
        [weakSelf, ticket = std::move(ticket)] {
            if (auto self = weakSelf.lock()) {
                // Lowered before draining: an event queued from here on
                // posts a drain of its own rather than count on this one.
                self->impl->drainPosted = false;
                self->impl->publications.drain();
            }
        },
        OutboundClass::answer);
    // Refused (the worker stops), or later dropped from a queue full of
    // answers: what is queued goes out with the next event's drain.
    if (!posted)
        impl->drainPosted = false;
}

} // namespace vlm
