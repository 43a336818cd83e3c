// MQTT API: requests from the ground and the cloud on the plug-in's command
// topics, forwarded to the micro service and answered on the topic they came
// from.

#include <atomic>
#include <functional>
#include <system_error>

#include <Poco/JSON/Parser.h>

#include "ApiCatalogue.h"
#include "ForwardMetrics.h"
#include "FrameLimit.h"
#include "MqttClient.h"
#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "VelmoraCommon.h"
#include "rpc/rpc_client.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

// Completion of a forwarded MQTT command, run exactly once. The link may let
// go of a pending call without ever calling back (a frame it cannot read
// clears its tables); the command then gets the link's "connection aborted"
// answer when the last copy of its completion goes, rather than none.
class AnswerOnce {
public:
    using Completion = std::function<void(std::error_code, std::string_view)>;

    explicit AnswerOnce(Completion completion) : completion(std::move(completion)) {}
    ~AnswerOnce()
    {
        if (settled.exchange(true))
            return;
        try {
            completion(std::make_error_code(std::errc::connection_aborted), {});
        } catch (...) {
            // Answering is best effort here; a destructor must not throw.
        }
    }
    AnswerOnce(const AnswerOnce&) = delete;
    AnswerOnce& operator=(const AnswerOnce&) = delete;

    void give(std::error_code error, std::string_view reply)
    {
        if (!settled.exchange(true))
            completion(error, reply);
    }
    /// For a call that never started: someone else answers it.
    void withdraw() { settled.store(true); }

private:
    const Completion completion;
    std::atomic<bool> settled{false};
};

} // namespace

std::vector<PilotControlP::CommandTopic> PilotControlP::commandTopics() const
{
    const std::string stationId = impl->getStationId();
    const std::string pilotId = impl->getPilotId();
    const std::string pluginGuid = topicGuidAppTypeZero();
    std::vector<CommandTopic> topics;
    if (impl->sixAxisArSeat < 1) {
        const std::string guid = impl->appType != 0 ? topicGuidAppTypeOther() : pluginGuid;
        // The station's own command topic is where the cloud reaches the station.
        topics.push_back({texts::pilotTopicPrefix + guid + "/" + stationId + texts::commandTopicSuffix, true});
    } else {
        topics.push_back({"/" + stationId + texts::telemetryTopicSuffix, false});
    }
    if (impl->appType == 0) {
        topics.push_back({texts::pilotTopicPrefix + pluginGuid + "/" + pilotId + texts::commandTopicSuffix, false});
        topics.push_back({texts::payloadTopicPrefix + pluginGuid + "/" + pilotId + texts::commandTopicSuffix, false});
    }
    return topics;
}

void PilotControlP::installMqttApi()
{
    if (!mqttClient)
        return;
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    bool first = true;
    for (const auto& entry : commandTopics()) {
        const bool cloudSide = entry.cloudSide;
        mqttClient->Subscribe(
            [weakSelf, cloudSide](const std::string& topic, const std::string& payload) {
                if (auto self = weakSelf.lock())
                    self->handleMqttCommand(topic, payload, cloudSide);
            },
            entry.topic, 0);
        if (first) {
            PCP_LOG_INFO("mqtt subscribe topic: %s", entry.topic.c_str());
            first = false;
        }
    }
}

void PilotControlP::handleMqttCommand(const std::string& topic, const std::string& payload, bool cloudSide)
{
    const auto received = std::chrono::steady_clock::now();
    Poco::JSON::Object::Ptr message;
    try {
        Poco::JSON::Parser parser;
        message = parser.parse(payload).extract<Poco::JSON::Object::Ptr>();
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("mqtt message on %s is not a JSON object: %s", topic.c_str(), e.displayText().c_str());
        return;
    }
    try {
        const std::string type = message->optValue<std::string>("type", "");
        const std::string apiName = message->optValue<std::string>("api", "");
        if (apiName.empty()) {
            PCP_LOG_ERROR("param api is empty");
            return;
        }
        // Link changes do not travel this way, and answers (ours included,
        // since they go back on the same topic) are not requests.
        if (apiName == texts::setCommLink || type == "response")
            return;
        if (apiName == texts::pushTelemetry) {
            sendTelemeToMicroService(3, *message, topic, "");
            return;
        }
        PCP_LOG_INFO("pilot micro service mqtt recv topic: %s ,api: %s", topic.c_str(), apiName.c_str());

        ForwardTimer timer(impl->forwards, ForwardFront::mqtt, received);
        const auto number = apiNumber(apiName);
        if (!number) {
            timer.settle(ForwardOutcome::apiNotExist);
            publishAnswer(makeErrorMsg(texts::apiNotExistPrefix + apiName, apiNotExist), topic, apiName);
            return;
        }
        if (!worksWithoutVehicle(*number) && !impl->pilotConnected) {
            timer.settle(ForwardOutcome::vehicleNotConnected);
            publishAnswer(makeErrorMsg(texts::vehicleNotConnected, *message, vehicleNotConnected), topic, apiName);
            return;
        }
        try {
            if (cloudSide)
                mqttAsyncApiCloud(*message, topic, received);
            else
                mqttAsyncApi(*message, topic, received);
        } catch (const std::exception& e) {
            const std::string text = std::string("Pilot response mqtt error msg: ") + e.what();
            PCP_LOG_ERROR("%s", text.c_str());
            timer.settle(ForwardOutcome::serviceCallFailed);
            publishAnswer(makeErrorMsg(text, *message, serviceCallFailed), topic, apiName);
        }
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("%s: %s", topic.c_str(), e.displayText().c_str());
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("%s: %s", topic.c_str(), e.what());
    }
}

void PilotControlP::publishAnswer(const std::string& payload, const std::string& topic, const std::string& apiName)
{
    // Publishing may wait for the broker; never on an RPC I/O thread.
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    // A drop is counted and logged by the worker.
    impl->outbound.post(
        [weakSelf, payload, topic, apiName] {
            if (auto self = weakSelf.lock())
                self->publishMessage(payload, topic, apiName);
        },
        OutboundClass::answer, payload.size());
}

void PilotControlP::forwardMqttRequest(const Poco::JSON::Object& message, const std::string& topic,
                                       const std::string& procedure, const std::string& secondArgument,
                                       std::chrono::steady_clock::time_point received)
{
    auto client = impl->callClient();
    if (!client)
        throw std::invalid_argument("rpc client is null");
    const std::string apiName = message.optValue<std::string>("api", "");
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    Poco::JSON::Object::Ptr request = new Poco::JSON::Object(message);
    auto answer = std::make_shared<AnswerOnce>([weakSelf, request, topic, apiName, received](std::error_code error,
                                                                                            std::string_view reply) {
        auto self = weakSelf.lock();
        if (!self)
            return;
        ForwardOutcome outcome = ForwardOutcome::answered;
        const std::string text = self->serviceAnswerText(error, reply, *request, " response mqtt msg: ", &outcome);
        // Counted before the answer leaves, so whoever reads the answer finds it counted.
        ForwardTimer(self->impl->forwards, ForwardFront::mqtt, received).settle(outcome);
        self->publishAnswer(text, topic, apiName);
    });
    auto onAnswer = [answer](std::error_code error, std::string_view reply) { answer->give(error, reply); };
    const std::string text = jsonToString(message);
    try {
        if (secondArgument.empty()) {
            requireFrameFits(impl->oversizeRequestsRefused, text);
            client->call_with_callback<120000>(procedure, std::move(onAnswer), text);
        } else {
            requireFrameFits(impl->oversizeRequestsRefused, text, secondArgument);
            client->call_with_callback<120000>(procedure, std::move(onAnswer), text, secondArgument);
        }
    } catch (...) {
        // The caller answers a call that failed to start.
        answer->withdraw();
        throw;
    }
}

void PilotControlP::mqttAsyncApi(const Poco::JSON::Object& message, const std::string& topic,
                                 std::chrono::steady_clock::time_point received)
{
    auto client = impl->callClient();
    if (!client)
        throw std::invalid_argument("rpc client is null");
    client->connect(getAddress(), getPort(), false, 3);
    const std::string apiName = message.getValue<std::string>("api");
    const auto number = apiNumber(apiName);
    const auto category = number ? apiCategory(*number) : std::nullopt;
    if (!category)
        throw std::invalid_argument("api has no service category: " + apiName);
    forwardMqttRequest(message, topic, *category, apiName, received);
}

void PilotControlP::mqttAsyncApiCloud(const Poco::JSON::Object& message, const std::string& topic,
                                      std::chrono::steady_clock::time_point received)
{
    auto client = impl->callClient();
    if (!client)
        throw std::invalid_argument("rpc client is null");
    const std::string apiName = message.getValue<std::string>("api");
    client->connect(getAddress(), getPort(), false, 3);
    if (message.has("factory") && message.get("factory").convert<bool>()) {
        forwardMqttRequest(message, topic, texts::procDjiControl, "", received);
    } else if (apiNumber(apiName) == api::hangerImageTransSwitch) {
        forwardMqttRequest(message, topic, texts::procPilotControlBase, apiName, received);
    } else {
        forwardMqttRequest(message, topic, texts::procPilotControlBase, serviceFunctionName(1), received);
    }
    PCP_LOG_INFO("pilot micro service handle mqtt msg: %s", jsonToString(message).c_str());
}

} // namespace vlm
