// Arbitrary text handed to the plug-in's bus intake (pushMessage), as the host
// bus delivers another plug-in's message. The service peer echoes the request
// as its answer, so the input also drives the rewrite of the answer that goes
// back to the sender.
//
// Beyond "did not crash": a message reaches the service once exactly when it
// is a JSON object whose API ("interface" over "api") is in the catalogue at
// a number the bus forwards (2..24, 27..100, 308..310), under that range's
// procedure; its answer comes back on the bus once, except for the three APIs
// whose answers stay home; an answer carrying "guid" and a "message" object
// goes back addressed to that guid from the plug-in's own GUID.

#include <cstddef>
#include <cstdint>

#include "ApiCatalogue.h"
#include "FuzzedPlugin.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"

namespace {

using vlm::fuzz::check;

struct Expectation {
    const char* procedure = nullptr;  // null: nothing is forwarded
    bool answered = false;
    std::string addressee;  // the echoed "guid" when the answer is rewritten
};

const char* procedureFor(int number)
{
    if (number >= 308 && number <= 310)
        return "microService";
    if (number >= 27 && number <= 100)
        return "flightControl";
    if (number >= 2 && number <= 24)
        return "telementry";
    return nullptr;
}

Expectation expectFor(const std::string& text)
{
    Expectation expected;
    const Poco::JSON::Object::Ptr message = vlm::fuzz::parseObject(text);
    if (!message)
        return expected;
    std::string api;
    try {
        api = message->has("interface") ? message->getValue<std::string>("interface")
                                        : message->optValue<std::string>("api", "");
        // The intake reads "api" even when "interface" overrides it.
        if (message->has("api"))
            (void)message->getValue<std::string>("api");
        if (api == "fixedPointFollow" && message->isObject("data") && message->getObject("data")->has("lat"))
            (void)message->getObject("data")->getValue<double>("lat");
    } catch (const Poco::Exception&) {
        return expected;  // unreadable: logged and dropped
    }
    const auto number = vlm::apiNumber(api);
    if (api.empty() || !number)
        return expected;
    expected.procedure = procedureFor(*number);
    expected.answered =
        expected.procedure && api != "setCommTeleRate" && api != "switchLink" && api != "mqttConnectStatusUpdate";
    if (message->has("guid") && message->isObject("message")) {
        try {
            expected.addressee = message->getValue<std::string>("guid");
        } catch (const Poco::Exception&) {
            expected.answered = false;  // the rewrite fails: logged, nothing goes back
        }
    }
    return expected;
}

vlm::fuzz::FuzzedPlugin& fuzzed()
{
    // The service answers with the request text itself.
    static auto* plugin =
        new vlm::fuzz::FuzzedPlugin([](const std::string&, const std::string& text) { return text; });
    return *plugin;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzed();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    vlm::fuzz::FuzzedPlugin& f = fuzzed();
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Expectation expected = expectFor(text);

    const std::uint64_t callsBefore = f.service.forwarded();
    const std::uint64_t answersBefore = f.bus.received();
    f.plugin->pushMessage(text);
    f.settle();
    if (expected.answered)
        check(f.bus.waitForCount(answersBefore + 1, vlm::fuzz::FuzzedPlugin::bound), "a bus request got no answer");

    const std::uint64_t calls = f.service.forwarded() - callsBefore;
    check(calls == (expected.procedure ? 1u : 0u),
          expected.procedure ? "a forwarded bus message did not reach the service once" : "a bus message was forwarded");
    if (expected.procedure)
        check(f.service.lastProcedure() == expected.procedure, "forwarded under the wrong procedure");
    const std::uint64_t answers = f.bus.received() - answersBefore;
    check(answers == (expected.answered ? 1u : 0u),
          expected.answered ? "a bus request got more than one answer" : "an answer went back that must stay home");
    if (answers == 1) {
        const std::string answer = f.bus.lastText();
        check(answer.size() <= vlm::fuzz::answerBound(text.size(), 2), "the bus answer outgrew its request");
        if (!expected.addressee.empty()) {
            const Poco::JSON::Object::Ptr json = vlm::fuzz::parseObject(answer);
            check(json && json->isArray("to") && json->getArray("to")->size() == 1 &&
                      json->getArray("to")->getElement<std::string>(0) == expected.addressee,
                  "the answer is not addressed to the sender");
            check(json->getValue<std::string>("guid") == vlm::pluginGuidString(), "the answer is not from the plug-in");
        }
    }
    f.restoreState();
    return 0;
}
