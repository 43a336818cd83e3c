// HTTP API: one endpoint per catalogue API, forwarded to the micro service.

#include <chrono>
#include <future>
#include <sstream>
#include <thread>

#include "ApiCatalogue.h"
#include "ForwardMetrics.h"
#include "FrameLimit.h"
#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "PluginTexts.h"
#include "VelmoraCommon.h"
#include "rpc/rpc_client.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

constexpr auto answerWaitLimit = std::chrono::seconds(600);
// Pause after each forwarded answer; callers have always been paced by it.
constexpr auto answerPause = std::chrono::milliseconds(50);
constexpr auto stopCheckInterval = std::chrono::milliseconds(100);

} // namespace

void PilotControlP::installApi()
{
    installWebApi();
    installMqttApi();
}

void PilotControlP::installWebApi()
{
    if (!webApi || impl->sixAxisArSeat > 0)
        return;
    for (const auto& entry : apiCatalogue()) {
        if (entry.second < api::httpRegistrationLimit)
            httpRegist(entry.first);
    }
}

void PilotControlP::httpRegist(const std::string& apiName)
{
    const std::string path = texts::httpApiPathPrefix + apiName;
    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    const auto number = apiNumber(apiName);
    if (number && isStreamingApi(*number)) {
        webApi->apiRegist(path, StreamApiHandler([weakSelf, apiName](Poco::Net::HTTPServerRequest& request,
                                                                   Poco::Net::HTTPServerResponse& response,
                                                                   const ApiParams&, Poco::JSON::Object& reply) {
            if (auto self = weakSelf.lock())
                self->handleEventStream(apiName, request, response);
            else
                reply.set("msg", "plug-in stopped");
        }));
        return;
    }
    webApi->apiRegist(path, RequestApiHandler([weakSelf, apiName](Poco::Net::HTTPServerRequest& request,
                                                                Poco::Net::HTTPServerResponse& response,
                                                                const ApiParams&, Poco::JSON::Object& reply,
                                                                const Poco::JSON::Object& body) {
        if (auto self = weakSelf.lock())
            self->handleHttpRequest(apiName, request, response, body);
        else
            reply.set("msg", "plug-in stopped");
    }));
}

void PilotControlP::handleHttpRequest(const std::string& apiName, Poco::Net::HTTPServerRequest& request,
                                      Poco::Net::HTTPServerResponse& response, const Poco::JSON::Object& body)
{
    if (!impl->callClient()) {
        PCP_LOG_ERROR("rpc client is null");
        return;
    }
    ForwardTimer timer(impl->forwards, ForwardFront::http);
    try {
        body.getValue<std::string>("type");
    } catch (const Poco::Exception&) {
        // A request without a readable "type" is still served: the type only
        // labels the envelope, the API name comes from the path.
        PCP_LOG_ERROR("param type error");
    }

    response.set("Connection", "keep-alive");
    response.setContentType("application/json");
    response.setChunkedTransferEncoding(true);
    std::ostream& out = response.send();

    const auto number = apiNumber(apiName);
    if (!number) {
        const std::string text = texts::apiNotExistPrefix + apiName;
        PCP_LOG_ERROR("%s", text.c_str());
        out << makeErrorMsg(text, apiNotExist);
        timer.settle(ForwardOutcome::apiNotExist);
        return;
    }
    const std::string bodyText = jsonToString(body);
    PCP_LOG_INFO("pilot micro service http recv topic: %s, msg: %s", apiName.c_str(), bodyText.c_str());

    if (auto cached = takeCachedAnswer(*number)) {
        out << *cached;
        timer.settle(ForwardOutcome::answered);
        return;
    }
    if (!worksWithoutVehicle(*number) && !impl->pilotConnected) {
        out << makeErrorMsg(texts::vehicleNotConnected, vehicleNotConnected);
        timer.settle(ForwardOutcome::vehicleNotConnected);
        return;
    }

    std::ostringstream answer;
    try {
        httpAsyncApi(answer, body, apiName, timer);
    } catch (const std::exception& e) {
        const std::string text = std::string("Pilot response http error msg: ") + e.what();
        PCP_LOG_ERROR("%s", text.c_str());
        answer.str(makeErrorMsg(text, body, serviceCallFailed));
        timer.settle(ForwardOutcome::serviceCallFailed);
    }
    out << answer.str();
    PCP_LOG_INFO("Http api %s response msg: %s", apiName.c_str(), answer.str().c_str());
}

std::optional<std::string> PilotControlP::takeCachedAnswer(int number)
{
    std::lock_guard<std::mutex> lock(impl->cacheMutex);
    auto take = [](std::string& slot) -> std::optional<std::string> {
        if (slot.empty())
            return std::nullopt;
        std::string text;
        text.swap(slot);
        return text;
    };
    switch (number) {
    case api::pushRoute:
    case api::syncRoute:
    case api::deleteWayPointList:
        // A new route operation makes the previous result meaningless.
        impl->lastRoute.clear();
        impl->lastProgress.clear();
        return std::nullopt;
    case api::getSyncRouteResult:
        if (impl->lastRoute.empty())
            return std::nullopt;
        PCP_LOG_INFO("return route operator result: %s", impl->lastRoute.c_str());
        impl->lastProgress.clear();
        return take(impl->lastRoute);
    case api::getRunInfoResult:
        return take(impl->lastRunInfo);
    case api::getBinInfoResult:
        return take(impl->lastBinInfo);
    case api::getSoftUploadResult:
        return take(impl->lastSoftUpload);
    default:
        return std::nullopt;
    }
}

bool PilotControlP::httpAsyncApi(std::ostream& out, const Poco::JSON::Object& body, const std::string& apiName,
                                 ForwardTimer& timer)
{
    auto client = impl->callClient();
    if (!client)
        throw std::invalid_argument("rpc client is null");

    auto answer = std::make_shared<std::promise<std::string>>();
    std::future<std::string> answered = answer->get_future();
    // Written before the promise is kept, read after the future is ready.
    auto outcome = std::make_shared<ForwardOutcome>(ForwardOutcome::answered);

    client->connect(getAddress(), getPort(), false, 3);
    const auto number = apiNumber(apiName);
    const auto category = number ? apiCategory(*number) : std::nullopt;
    if (!category) {
        // Waiting for an answer that no call will bring would hold this
        // thread for ten minutes; say so at once instead.
        throw std::invalid_argument("api has no service category: " + apiName);
    }

    const std::string requestText = jsonToString(body);
    requireFrameFits(impl->oversizeRequestsRefused, requestText, apiName);

    std::weak_ptr<PilotControlP> weakSelf = impl->self;
    Poco::JSON::Object::Ptr request = new Poco::JSON::Object(body);
    client->call_with_callback<120000>(
        *category,
        [weakSelf, answer, outcome, request, apiName](std::error_code error, std::string_view reply) {
            auto self = weakSelf.lock();
            if (!self)
                return;
            try {
                answer->set_value(
                    self->serviceAnswerText(error, reply, *request, " response http msg: ", outcome.get()));
            } catch (const std::future_error&) {
                // A second completion for one call has nobody left to tell.
            }
        },
        requestText, apiName);

    PCP_LOG_INFO("pilot micro service handle http msg: %s", apiName.c_str());
    if (!waitForAnswer(answered, answerWaitLimit))
        throw std::runtime_error("no answer from the pilot control micro service");
    out << answered.get();
    // The pause is the gateway's own pacing, not the request's latency.
    timer.settle(*outcome);
    std::this_thread::sleep_for(answerPause);
    return true;
}

std::string PilotControlP::serviceAnswerText(std::error_code error, std::string_view reply,
                                             const Poco::JSON::Object& request, const char* logPrefix,
                                             ForwardOutcome* outcome)
{
    std::string text;
    ForwardOutcome ignored = ForwardOutcome::answered;
    ForwardOutcome& ended = outcome ? *outcome : ignored;
    if (!error) {
        try {
            text = pilot_rpc::req_result(reply).value<std::string>();
            PCP_LOG_INFO("%s%s", logPrefix, text.c_str());
            ended = ForwardOutcome::answered;
            return text;
        } catch (const std::exception& e) {
            // The service refused the call: its message is the answer's text.
            ended = ForwardOutcome::serviceCallFailed;
            text = makeErrorMsg(e.what(), request, serviceCallFailed);
            PCP_LOG_ERROR("%s%s, error code: %d", logPrefix, e.what(), static_cast<int>(serviceCallFailed));
            return text;
        }
    }
    ended = ForwardOutcome::linkError;
    text = makeErrorMsg(error.message(), request, static_cast<ErrorCode>(error.value()));
    PCP_LOG_ERROR("%s%s, error code: %d", logPrefix, error.message().c_str(), error.value());
    return text;
}

bool PilotControlP::waitForAnswer(std::future<std::string>& answered, std::chrono::seconds limit)
{
    // Checked in slices so that stopping the plug-in releases waiting callers.
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (answered.wait_for(stopCheckInterval) == std::future_status::ready)
            return true;
        if (impl->stopped)
            return false;
    }
    return false;
}

} // namespace vlm
