#include "MqttRoundTrip.h"

namespace vlm::bench {

std::string textAfterKey(const std::string& text, const std::string& key)
{
    const std::string needle = "\"" + key + "\":\"";
    const auto at = text.find(needle);
    if (at == std::string::npos)
        return "";
    const auto start = at + needle.size();
    const auto end = text.find('"', start);
    return end == std::string::npos ? "" : text.substr(start, end - start);
}

MqttRoundTrip::MqttRoundTrip(const std::string& uri, const std::string& clientId)
    : probe(uri, clientId, [this](const e2e::MqttProbe::Message& m) { arrived(m); }, true)
{
}

void MqttRoundTrip::subscribe(const std::string& topic)
{
    probe.subscribe(topic);
}

void MqttRoundTrip::send(const std::string& topic, const std::string& payload, const std::string& msgId)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        pending[msgId] = Pending{std::chrono::steady_clock::now(), std::nullopt};
    }
    probe.publish(topic, payload);
}

std::optional<MqttRoundTrip::Answer> MqttRoundTrip::await(const std::string& msgId, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    answered.wait_for(lock, timeout, [&] {
        const auto it = pending.find(msgId);
        return it == pending.end() || it->second.answer.has_value();
    });
    const auto it = pending.find(msgId);
    if (it == pending.end())
        return std::nullopt;
    auto answer = std::move(it->second.answer);
    pending.erase(it);
    return answer;
}

std::uint64_t MqttRoundTrip::unmatched()
{
    std::lock_guard<std::mutex> lock(mutex);
    return stray;
}

void MqttRoundTrip::arrived(const e2e::MqttProbe::Message& message)
{
    const auto now = std::chrono::steady_clock::now();
    if (message.payload.find("\"type\":\"response\"") == std::string::npos)
        return;  // telemetry, events, other clients' requests
    const std::string msgId = textAfterKey(message.payload, "msgId");
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = pending.find(msgId);
        if (it == pending.end() || it->second.answer) {
            // Event envelopes are responses too, numbered by the plug-in with
            // digits only; the drivers' requests never are.
            if (!msgId.empty() && msgId.find_first_not_of("0123456789") != std::string::npos)
                ++stray;
            return;
        }
        it->second.answer = Answer{message.topic, message.payload,
                                   std::chrono::duration<double, std::milli>(now - it->second.sent).count()};
    }
    answered.notify_all();
}

} // namespace vlm::bench
