// Outbound publishing: every message of the micro service that leaves on MQTT
// goes through publishMessage.

#include <Poco/JSON/Parser.h>
#include <Poco/Timestamp.h>

#include "MqttClient.h"
#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

constexpr size_t responseStatusLimit = 20;
constexpr int statusOk = 1;
constexpr int statusFailed = 2;

bool contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

Poco::JSON::Object::Ptr parseObject(const std::string& text)
{
    Poco::JSON::Parser parser;
    return parser.parse(text).extract<Poco::JSON::Object::Ptr>();
}

// 100 ns ticks since 1970-01-01 UTC.
int64_t wallClockTicks()
{
    return Poco::Timestamp().epochMicroseconds() * 10;
}

} // namespace

void PilotControlP::publishMessage(const std::string& payload, const std::string& topic, const std::string& api)
{
    const bool telemetry = contains(api, texts::pushTelemetry);

    if (!contains(api, texts::heartBeat) && !telemetry) {
        try {
            auto object = parseObject(payload);
            std::string msgId;
            int code = 0;
            if (object && object->has("message") && object->isObject("message")) {
                auto message = object->getObject("message");
                if (message->has("msgId"))
                    msgId = message->getValue<std::string>("msgId");
                // A missing code counts as "not 200".
                if (message->has("code"))
                    code = message->getValue<int>("code");
            }
            if (!msgId.empty()) {
                std::lock_guard<std::mutex> lock(impl->publishMutex);
                impl->responseStatus[msgId] = code == 200 ? statusOk : statusFailed;
                // Eviction is by key order, not by age, and is kept that way.
                if (impl->responseStatus.size() > responseStatusLimit)
                    impl->responseStatus.erase(impl->responseStatus.begin());
            }
        } catch (const Poco::Exception& e) {
            PCP_LOG_ERROR("%s", e.displayText().c_str());
        } catch (const std::exception& e) {
            PCP_LOG_ERROR("%s", e.what());
        }
    }

    try {
        bool published = false;
        if (mqttClient) {
            if (!telemetry) {
                published = mqttClient->PublishMessage(payload, topic, 2, 0, 1);
            } else if (impl->pilotConnected) {
                published = mqttClient->PublishMessage(payload, topic, 0, 0, 1);
                if (published) {
                    impl->telemetryPublished = true;
                    impl->lastTelemetryTime = wallClockTicks();
                }
            }
        }
        if (!published) {
            if (api == texts::uploadRouteMission) {
                {
                    std::lock_guard<std::mutex> lock(impl->publishMutex);
                    impl->failedRouteMissions.push_back({payload, topic, api});
                }
                PCP_LOG_INFO("mqtt publishMessage api:%s, failed!", api.c_str());
            }
            return;
        }
        if (callback && !api.empty() && !contains(api, texts::heartBeat)) {
            auto object = parseObject(payload);
            sendTelemeToMicroService(3, object ? *object : Poco::JSON::Object(), topic, "");
        }
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("%s", e.displayText().c_str());
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("%s", e.what());
    }
}

} // namespace vlm
