#include <Poco/Exception.h>

#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "VelmoraCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {

std::string PilotControlP::makeErrorMsg(const std::string& text, ErrorCode code)
{
    // Key order is not preserved on purpose: clients have always seen the keys
    // of this short form sorted ("code", "id", "msg", "type").
    Poco::JSON::Object answer;
    answer.set("id", impl->getPilotId());
    answer.set("msg", text);
    answer.set("code", static_cast<int32_t>(code));
    answer.set("type", "response");
    return jsonToString(answer);
}

std::string PilotControlP::makeErrorMsg(const std::string& text, const Poco::JSON::Object& request, ErrorCode code)
{
    std::string answerText;
    try {
        // A "message" that is present but not an object has no object to copy;
        // the null dereference below is reported like any other JSON failure.
        Poco::JSON::Object inner;
        if (request.has("message")) {
            Poco::JSON::Object::Ptr original = request.getObject("message");
            inner = *original;
        }
        inner.set("msg", text);
        inner.set("code", static_cast<int32_t>(code));
        inner.set("type", "response");

        const std::string from = request.has("from") ? request.getValue<std::string>("from") : std::string();
        const std::string target =
            request.has("target") ? request.getValue<std::string>("target") : impl->getStationId();

        Poco::JSON::Object outer(request);
        outer.set("type", "response");
        outer.set("target", from);
        outer.set("from", target);
        outer.set("message", inner);
        answerText = jsonToString(outer);
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("makeErrorMsg failed: %s", e.displayText().c_str());
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("makeErrorMsg failed: %s", e.what());
    }
    return answerText;
}

} // namespace vlm
