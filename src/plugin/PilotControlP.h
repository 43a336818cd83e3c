#pragma once

#include <chrono>
#include <cstdint>
#include <future>
#include <optional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>
#include <system_error>

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>

#include "PluginBase.h"
#include "VelmoraExport.h"
#include "WebApiBasic.h"

namespace vlm {

struct PilotControlPImpl;
class ForwardTimer;
enum class ForwardOutcome;

/// The pilot control gateway: forwards HTTP, MQTT and bus requests to the pilot
/// control micro service and republishes that service's events.
///
/// One class, defined across several files by front: lifecycle
/// (PilotControlP.cpp), HTTP API (HttpApi.cpp), event streams (EventStream.cpp),
/// MQTT API (MqttApi.cpp), bus intake (BusIntake.cpp), event dispatch
/// (EventDispatch.cpp), publishing (Publishing.cpp), link type (LinkType.cpp),
/// records to other plug-ins (Records.cpp), error answers (ErrorMessages.cpp).
class VLM_EXPORT PilotControlP : public PluginBase {
public:
    /// Codes carried in the "code" key of error answers.
    enum ErrorCode : int32_t {
        apiNotExist = -1,
        vehicleNotConnected = 4001,
        serviceCallFailed = 4002,
    };

    /// Makes one plug-in object (the only way to make one).
    static std::shared_ptr<PilotControlP> createInstance();

    ~PilotControlP() override;

    /// Connects to the micro service at `address`:`port`, reads the settings,
    /// subscribes to its events and installs the HTTP and MQTT APIs. Failures
    /// are logged, never thrown. Runs on the host's thread.
    void start(std::shared_ptr<WebApiBasic> webApi, std::shared_ptr<MqttClient> mqtt, std::string address,
               unsigned short port) override;

    /// Releases both RPC clients. Idempotent.
    void stop() override;

    /// Takes one message of another plug-in (a JSON text) and forwards it to
    /// the micro service; the answer goes back over the bus. Never throws.
    void pushMessage(std::string message) override;

private:
    friend class PilotControlPTestAccess;

    PilotControlP();

    // Lifecycle.
    void regMsgFwdCallbck();
    void connectServiceClients(const std::string& address, unsigned short port);
    void readLocalBrokerSettings();
    void rpcSubscribe(const std::string& topic);
    void rpcSubscribeVehicleOnlineStatus();
    void installApi();

    // HTTP API and event streams.
    void installWebApi();
    void httpRegist(const std::string& api);
    void handleHttpRequest(const std::string& api, Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response, const Poco::JSON::Object& body);
    bool httpAsyncApi(std::ostream& out, const Poco::JSON::Object& body, const std::string& api, ForwardTimer& timer);
    std::optional<std::string> takeCachedAnswer(int apiNumber);
    /// The answer text of a forwarded call; `outcome`, when given, gets how it ended.
    std::string serviceAnswerText(std::error_code error, std::string_view reply, const Poco::JSON::Object& request,
                                  const char* logPrefix, ForwardOutcome* outcome = nullptr);
    bool waitForAnswer(std::future<std::string>& answered, std::chrono::seconds limit);
    void handleEventStream(const std::string& api, Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response);
    std::string* streamSlot(int apiNumber);

    // MQTT API.
    struct CommandTopic {
        std::string topic;
        bool cloudSide;
    };
    std::vector<CommandTopic> commandTopics() const;
    void installMqttApi();
    void handleMqttCommand(const std::string& topic, const std::string& payload, bool cloudSide);
    // `received`: when the command came in, for its latency.
    void mqttAsyncApi(const Poco::JSON::Object& message, const std::string& topic,
                      std::chrono::steady_clock::time_point received);
    void mqttAsyncApiCloud(const Poco::JSON::Object& message, const std::string& topic,
                           std::chrono::steady_clock::time_point received);
    void forwardMqttRequest(const Poco::JSON::Object& message, const std::string& topic, const std::string& procedure,
                            const std::string& secondArgument, std::chrono::steady_clock::time_point received);
    void publishAnswer(const std::string& payload, const std::string& topic, const std::string& api);

    // Error answers.
    std::string makeErrorMsg(const std::string& text, ErrorCode code);
    std::string makeErrorMsg(const std::string& text, const Poco::JSON::Object& request, ErrorCode code);
    std::string makeTrimmedErrorMsg(const std::string& text, const Poco::JSON::Object& request, ErrorCode code,
                                    std::size_t fullSize);

    // Events of the micro service and what is published from them.
    void dispatchServiceEvent(const std::string& topic, std::string_view data);
    void cacheServiceEvent(int apiNumber, const std::string& text);
    void wrapAndPublishEvent(const std::string& topic, const std::string& text);
    /// Drains the wrapped events' sequence on a free pool thread, else on the outbound worker.
    void startPublicationDrain();
    void publishMessage(const std::string& payload, const std::string& topic, const std::string& api);

    // Link type.
    unsigned int getLinkType(const Poco::JSON::Object& request);
    void notifyLinkTypeChange(unsigned int linkType);
    void procLinkSwitch(const Poco::JSON::Object& request);
    void handleVehicleOnlineStatus(std::string_view data);

    // Bus intake: the answer of a forwarded bus message.
    void returnBusAnswer(const std::string& api, std::error_code error, std::string_view body,
                         std::chrono::steady_clock::time_point received);

    // Records to other plug-ins.
    void sendTelemeToMicroService(int kind, const Poco::JSON::Object& object, const std::string& topic,
                                  const std::string& api);

    std::shared_ptr<PilotControlPImpl> impl;
};

} // namespace vlm
