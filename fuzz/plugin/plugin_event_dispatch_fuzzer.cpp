// Arbitrary event payloads from the service: the first input byte picks one
// of the topics the plug-in really subscribed to (as the service saw the
// subscriptions), the rest is published on it over the link, so the event
// takes the plug-in's own path from the subscription client to the dispatch.
//
// Beyond "did not crash", what each event leaves on MQTT and the bus:
// "uavData2MaterCtl" and topics containing "responseToCloud" are published
// once, unchanged; "toMicroService" goes to the bus unchanged and not to MQTT;
// the state topics and "vehicleOnlineStatus" publish nothing; every other
// topic publishes one envelope ("api" = topic, the pilot id, the event's
// object under "message") when the payload is JSON and nothing otherwise. The
// telemetry interval stays within 1..999 ms, and no publication is larger
// than the event allows.

#include <cstddef>
#include <cstdint>
#include <thread>

#include "FuzzedPlugin.h"

namespace {

using vlm::fuzz::check;

enum class Outcome { nothing, verbatim, toBus, envelope };

bool isJson(const std::string& text)
{
    try {
        Poco::JSON::Parser().parse(text);
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

Outcome outcomeFor(const std::string& topic, const std::string& payload)
{
    if (topic == "uavData2MaterCtl" || topic.find("responseToCloud") != std::string::npos)
        return Outcome::verbatim;
    if (topic == "pilotConnectState" || topic == "setTelemFrequency" || topic == "pushUavSn" ||
        topic == "vehicleOnlineStatus")
        return Outcome::nothing;
    if (topic == "toMicroService")
        return Outcome::toBus;
    return isJson(payload) ? Outcome::envelope : Outcome::nothing;
}

struct Fixture {
    vlm::fuzz::FuzzedPlugin plugin;
    std::vector<std::string> topics;
    std::uint64_t fences = 0;

    Fixture()
    {
        for (auto id : plugin.service.service.connections()) {
            auto subscribed = plugin.service.service.subscriptions(id);
            if (!subscribed.empty())
                topics = subscribed;
        }
        check(!topics.empty(), "the service saw no subscription");
    }

    /// Publications of the subscription link are handled in order on its one
    /// thread: once a serial number published after the event has been taken
    /// in, the event has been dispatched too.
    void fence()
    {
        const std::string serial = "fence-" + std::to_string(++fences);
        plugin.service.service.publish("pushUavSn", serial);
        const auto deadline = std::chrono::steady_clock::now() + vlm::fuzz::FuzzedPlugin::bound;
        while (plugin.state().getPilotId() != serial) {
            check(std::chrono::steady_clock::now() < deadline, "the subscription link stopped dispatching");
            std::this_thread::yield();
        }
    }
};

Fixture& fixture()
{
    // Lives until the process ends: libFuzzer exits from inside a run.
    static auto* f = new Fixture();
    return *f;
}

void checkEnvelope(const std::string& topic, const vlm::fuzz::CountingMqttClient::Publication& published)
{
    const Poco::JSON::Object::Ptr envelope = vlm::fuzz::parseObject(published.payload);
    check(envelope != nullptr, "an envelope is not a JSON object");
    check(envelope->optValue<std::string>("api", "") == topic, "the envelope names another api");
    check(envelope->optValue<std::string>("pilot_id", "") == vlm::fuzz::FuzzedPlugin::pilotId, "no pilot id");
    const std::string type = topic == "fireSearchInfo" ? "request" : "response";
    check(envelope->optValue<std::string>("type", "") == type, "the envelope has the wrong type");
    check(envelope->isObject("message") &&
              envelope->getObject("message")->optValue<std::string>("id", "") == vlm::fuzz::FuzzedPlugin::pilotId,
          "the event's object does not carry the pilot id");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fixture();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    Fixture& f = fixture();
    const std::string topic = f.topics[data[0] % f.topics.size()];
    const std::string payload(reinterpret_cast<const char*>(data + 1), size - 1);
    const Outcome outcome = outcomeFor(topic, payload);

    const std::uint64_t publishedBefore = f.plugin.mqtt->published();
    const std::uint64_t busBefore = f.plugin.bus.received();
    check(f.plugin.service.service.publish(topic, payload) == 1, "the event reached no subscriber");
    f.fence();
    if (topic == "setTelemFrequency") {
        const int interval = f.plugin.state().telemFrequency;
        check(interval >= 1 && interval <= 999, "telemetry interval out of bounds");
    }
    f.plugin.settle();

    const std::uint64_t published = f.plugin.mqtt->published() - publishedBefore;
    const bool publishes = outcome == Outcome::verbatim || outcome == Outcome::envelope;
    check(published == (publishes ? 1u : 0u), publishes ? "an event was not published once" : "an event was published");
    if (published == 1) {
        const auto last = f.plugin.mqtt->lastPublication();
        check(last.payload.size() <= vlm::fuzz::answerBound(payload.size()), "a publication outgrew its event");
        if (outcome == Outcome::verbatim)
            check(last.payload == payload, "a verbatim event was changed");
        else
            checkEnvelope(topic, last);
    }
    if (outcome == Outcome::toBus) {
        check(f.plugin.bus.received() - busBefore == 1, "toMicroService did not reach the bus once");
        check(f.plugin.bus.lastText() == payload, "toMicroService was changed on its way to the bus");
    }
    f.plugin.restoreState();
    return 0;
}
