// Messages of other plug-ins, delivered by the host bus through pushMessage.

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>

#include "ApiCatalogue.h"
#include "ForwardMetrics.h"
#include "FrameLimit.h"
#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "VelmoraCommon.h"
#include "rpc/rpc_client.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

// Only these numbers are forwarded from the bus; the ranges are narrower than
// the catalogue on purpose and must not be widened.
const char* busCategory(int number)
{
    if (number >= 308 && number <= 310)
        return texts::procMicroService;
    if (number >= 27 && number <= 100)
        return texts::procFlightControl;
    if (number >= 2 && number <= 24)
        return texts::procTelementry;
    return nullptr;
}

// Answers to these go nowhere: the sender does not expect one.
bool answerStaysHere(const std::string& api)
{
    return api == texts::setCommTeleRate || api == texts::switchLink || api == texts::mqttConnectStatusUpdate;
}

} // namespace

void PilotControlP::pushMessage(std::string message)
{
    const auto received = std::chrono::steady_clock::now();
    // Settled here only for messages that never reach the service; the
    // answer's own outcome is counted where it comes back.
    ForwardTimer refused(impl->forwards, ForwardFront::bus, received);
    try {
        Poco::JSON::Parser parser;
        auto object = parser.parse(message).extract<Poco::JSON::Object::Ptr>();
        std::string api = object->has("api") ? object->getValue<std::string>("api") : std::string();

        auto client = impl->callClient();
        if (!client) {
            PCP_LOG_ERROR("rpc client is null");
            return;
        }
        if (object->has("interface"))
            api = object->getValue<std::string>("interface");
        if (api.empty())
            return;
        const auto number = apiNumber(api);
        if (!number) {
            refused.settle(ForwardOutcome::apiNotExist);
            return;
        }

        std::string text = message;
        if (api == texts::fixedPointFollow) {
            PCP_LOG_INFO("recv msg: %s", message.c_str());
            auto data = object->getObject("data");
            if (data && data->has("lat") && data->getValue<double>("lat") > 0.0) {
                data->set("payloadAction", 1);
                object->set("data", data);
                text = jsonToString(object);
            }
        }

        const char* category = busCategory(*number);
        if (!category) {
            refused.settle(ForwardOutcome::apiNotExist);
            return;
        }

        std::weak_ptr<PilotControlP> weakSelf = impl->self;
        auto onAnswer = [weakSelf, api, received](std::error_code error, std::string_view body) {
            if (auto self = weakSelf.lock())
                self->returnBusAnswer(api, error, body, received);
        };
        // A refusal leaves through the guard below: logged, the message dropped.
        if (std::string(category) == texts::procMicroService) {
            requireFrameFits(impl->oversizeRequestsRefused, text);
            client->call_with_callback<5000>(category, std::move(onAnswer), text);
        } else {
            requireFrameFits(impl->oversizeRequestsRefused, text, api);
            client->call_with_callback<120000>(category, std::move(onAnswer), text, api);
        }
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("%s", e.displayText().c_str());
    } catch (const std::exception& e) {
        // A call that could not start (its frame too big, the link down).
        refused.settle(ForwardOutcome::serviceCallFailed);
        PCP_LOG_ERROR("%s", e.what());
    }
}

void PilotControlP::returnBusAnswer(const std::string& api, std::error_code error, std::string_view body,
                                    std::chrono::steady_clock::time_point received)
{
    ForwardTimer timer(impl->forwards, ForwardFront::bus, received);
    // Until the service's result reads as a text, the call counts as failed.
    ForwardOutcome outcome = error ? ForwardOutcome::linkError : ForwardOutcome::serviceCallFailed;
    try {
        if (body.empty()) {
            timer.settle(outcome);
            return;
        }
        std::string text = pilot_rpc::req_result(body).value<std::string>();
        timer.settle(ForwardOutcome::answered);
        if (text.empty())
            return;

        Poco::JSON::Parser parser;
        auto answer = parser.parse(text).extract<Poco::JSON::Object::Ptr>();
        if (answer->has("guid") && answer->has("message") && answer->isObject("message")) {
            auto message = answer->getObject("message");
            Poco::JSON::Array to;
            to.add(answer->getValue<std::string>("guid"));
            answer->set("data", message);
            answer->set("to", to);
            answer->set("guid", pluginGuidString());
            text = jsonToString(answer);
        }
        if (!answerStaysHere(api))
            callback(text);
    } catch (const Poco::Exception& e) {
        timer.settle(outcome);
        PCP_LOG_ERROR("%s", e.displayText().c_str());
    } catch (const std::exception& e) {
        timer.settle(outcome);
        PCP_LOG_ERROR("%s", e.what());
    }
}

} // namespace vlm
