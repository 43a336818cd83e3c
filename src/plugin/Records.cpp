// Records and telemetry handed to other plug-ins over the host bus.

#include <atomic>

#include <Poco/JSON/Array.h>
#include <Poco/Timestamp.h>

#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "VelmoraCommon.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

// Process-wide sequence of bus records; the first message carries 1.
std::atomic<uint32_t> recordSequence{0};

uint64_t millisecondsSinceEpoch()
{
    return static_cast<uint64_t>(Poco::Timestamp().epochMicroseconds() / 1000);
}

void setRoute(Poco::JSON::Object& message, const std::string& api, int msgId)
{
    message.set("api", api);
    message.set("interface", api);
    message.set("msg_id", msgId);
}

} // namespace

void PilotControlP::sendTelemeToMicroService(int kind, const Poco::JSON::Object& object, const std::string& topic,
                                             const std::string& api)
{
    try {
        Poco::JSON::Array to;
        Poco::JSON::Object message(Poco::JSON_PRESERVE_KEY_ORDER);
        switch (kind) {
        case 1:
            break;
        case 2:
            to.add(texts::gimbalPluginGuid);
            setRoute(message, "sendGimbalControlCmd102", 1);
            message.set("data", object);
            break;
        case 3: {
            Poco::JSON::Object record(Poco::JSON_PRESERVE_KEY_ORDER);
            record.set("plan_id", impl->getPilotId());
            record.set("topic", topic);
            record.set("record", object);
            record.set("type", "pcservice");
            record.set("time_stamp", millisecondsSinceEpoch());
            to.add(texts::recordPluginGuid);
            setRoute(message, "mrpAddRPRecord", 901);
            message.set("data", record);
            break;
        }
        case 4:
            to.add(texts::gimbalPluginGuid);
            // The upload plug-in has always been addressed twice for this one API.
            if (api == texts::uploadGuid)
                to.add(texts::gimbalPluginGuid);
            to.add(texts::uploadPluginGuid);
            setRoute(message, api, 5);
            message.set("data", object);
            break;
        default:
            return;
        }
        message.set("guid", pluginGuidString());
        message.set("seq", ++recordSequence);
        message.set("to", to);
        const std::string text = jsonToString(message);
        callback(text);
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("sendTelemeToMicroService: %s", e.displayText().c_str());
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("sendTelemeToMicroService: %s", e.what());
    }
}

} // namespace vlm
