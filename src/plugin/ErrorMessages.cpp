#include <Poco/Exception.h>
#include <Poco/JSON/Array.h>

#include "PilotControlP.h"
#include "PilotControlPImpl.h"
#include "VelmoraCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace vlm {
namespace {

// An error answer longer than this does not copy the request: whoever sent a
// body that big gets its identifiers back, not the body. The bound is the
// default intake bound of the HTTP and MQTT fronts, so every request those
// admit by default is answered exactly as it always was.
constexpr std::size_t errorEchoLimit = 1024 * 1024;
// Identifiers longer than this are left out of a trimmed answer too.
constexpr std::size_t trimmedValueLimit = 256;

// The envelope keys a trimmed answer carries back (when short and scalar).
const char* const echoedEnvelopeKeys[] = {"api", "interface", "msgId", "id", "pilot_id", "guid", "msg_id", "seq"};

bool shortScalar(const Poco::Dynamic::Var& value)
{
    if (value.isEmpty() || value.isArray() || value.isStruct() || value.type() == typeid(Poco::JSON::Object::Ptr) ||
        value.type() == typeid(Poco::JSON::Array::Ptr))
        return false;
    return value.toString().size() <= trimmedValueLimit;
}

void copyShortScalar(const Poco::JSON::Object& from, const std::string& key, Poco::JSON::Object& to)
{
    if (from.has(key) && shortScalar(from.get(key)))
        to.set(key, from.get(key));
}

std::string shortStringOr(const Poco::JSON::Object& object, const std::string& key, const std::string& fallback)
{
    if (!object.has(key))
        return fallback;
    const std::string value = object.getValue<std::string>(key);
    return value.size() <= trimmedValueLimit ? value : std::string();
}

} // namespace

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
        std::string full = jsonToString(outer);
        if (full.size() > errorEchoLimit)
            full = makeTrimmedErrorMsg(text, request, code, full.size());
        answerText = std::move(full);
    } catch (const Poco::Exception& e) {
        PCP_LOG_ERROR("makeErrorMsg failed: %s", e.displayText().c_str());
    } catch (const std::exception& e) {
        PCP_LOG_ERROR("makeErrorMsg failed: %s", e.what());
    }
    return answerText;
}

std::string PilotControlP::makeTrimmedErrorMsg(const std::string& text, const Poco::JSON::Object& request,
                                               ErrorCode code, std::size_t fullSize)
{
    Poco::JSON::Object inner;
    if (request.isObject("message"))
        copyShortScalar(*request.getObject("message"), "msgId", inner);
    inner.set("msg", text);
    inner.set("code", static_cast<int32_t>(code));
    inner.set("type", "response");

    Poco::JSON::Object outer;
    for (const char* key : echoedEnvelopeKeys)
        copyShortScalar(request, key, outer);
    outer.set("type", "response");
    outer.set("target", shortStringOr(request, "from", std::string()));
    outer.set("from", shortStringOr(request, "target", impl->getStationId()));
    outer.set("message", inner);

    const std::uint64_t trimmed = ++impl->errorEchoesTrimmed;
    if (trimmed == 1 || trimmed % 1000 == 0)
        PCP_LOG_ERROR("error answer of %zu bytes left the request out (%llu so far)", fullSize,
                      static_cast<unsigned long long>(trimmed));
    return jsonToString(outer);
}

} // namespace vlm
