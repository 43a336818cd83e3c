// Arbitrary payloads on the plug-in's MQTT command topics (the first input
// byte picks the topic, the rest is the payload), through the MQTT client's
// handlers as the host's delivery thread calls them.
//
// Beyond "did not crash": a command gets exactly one answer, on the topic it
// came on, when it is a JSON object whose "api" names something other than
// "setCommLink" or "pushTelemetry" and whose "type" is not "response";
// everything else gets none. No answer is larger than the command allows,
// and a non-empty answer to a catalogue API is a JSON object that carries the
// command's string "msgId".

#include <cstddef>
#include <cstdint>

#include "ApiCatalogue.h"
#include "FuzzedPlugin.h"

namespace {

using vlm::fuzz::check;

struct Expectation {
    bool answered = false;
    bool knownApi = false;
    std::string msgId;
};

Expectation expectFor(const std::string& payload)
{
    Expectation expected;
    const Poco::JSON::Object::Ptr command = vlm::fuzz::parseObject(payload);
    if (!command)
        return expected;
    try {
        const std::string api = command->optValue<std::string>("api", "");
        const std::string type = command->optValue<std::string>("type", "");
        expected.answered = !api.empty() && api != "setCommLink" && api != "pushTelemetry" && type != "response";
        expected.knownApi = vlm::apiNumber(api).has_value();
        if (command->has("msgId") && command->get("msgId").isString())
            expected.msgId = command->getValue<std::string>("msgId");
    } catch (const Poco::Exception&) {
        // "api" or "type" that cannot be read as text: refused with a log line.
        expected.answered = false;
    }
    return expected;
}

vlm::fuzz::FuzzedPlugin& fuzzed()
{
    // Lives until the process ends: libFuzzer exits from inside a run.
    static auto* plugin = new vlm::fuzz::FuzzedPlugin();
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
    if (size == 0)
        return 0;
    vlm::fuzz::FuzzedPlugin& f = fuzzed();
    const std::vector<std::string> topics = f.mqtt->topics();
    const std::string topic = topics[data[0] % topics.size()];
    const std::string payload(reinterpret_cast<const char*>(data + 1), size - 1);
    const Expectation expected = expectFor(payload);

    const std::uint64_t before = f.mqtt->published();
    f.mqtt->deliver(topic, payload);
    if (expected.answered)
        check(f.mqtt->waitForCount(before + 1, vlm::fuzz::FuzzedPlugin::bound), "a command got no answer");
    f.settle();
    const std::uint64_t answers = f.mqtt->published() - before;
    check(answers == (expected.answered ? 1u : 0u), expected.answered ? "a command got more than one answer"
                                                                      : "a refused command was answered");
    if (answers == 1) {
        const auto answer = f.mqtt->lastPublication();
        check(answer.topic == topic, "the answer went to another topic");
        check(answer.payload.size() <= vlm::fuzz::answerBound(payload.size()), "the answer outgrew its command");
        if (!answer.payload.empty() && expected.knownApi) {
            const Poco::JSON::Object::Ptr json = vlm::fuzz::parseObject(answer.payload);
            check(json != nullptr, "an answer is not a JSON object");
            if (!expected.msgId.empty())
                check(json->has("msgId") && json->get("msgId").isString() &&
                          json->getValue<std::string>("msgId") == expected.msgId,
                      "the answer lost the command's msgId");
        }
    }
    f.restoreState();
    return 0;
}
