#include "e2e/MqttProbe.h"

#include <algorithm>
#include <stdexcept>

#include <Poco/JSON/Parser.h>

namespace vlm::e2e {
constexpr auto operationBound = std::chrono::seconds(5);

MqttProbe::MqttProbe(const std::string& uri, const std::string& clientId) : MqttProbe(uri, clientId, nullptr) {}

MqttProbe::MqttProbe(const std::string& uri, const std::string& clientId,
                     std::function<void(const Message&)> handler, bool ignoreOwnMessages)
    : onMessage(std::move(handler)), ignoreOwn(ignoreOwnMessages),
      client(uri, clientId, mqtt::create_options(ignoreOwn ? MQTTVERSION_5 : MQTTVERSION_DEFAULT))
{
    client.set_message_callback([this](mqtt::const_message_ptr message) {
        if (onMessage) {
            onMessage({message->get_topic(), message->to_string()});
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back({message->get_topic(), message->to_string()});
        }
        arrived.notify_all();
    });
    mqtt::connect_options_builder options;
    (ignoreOwn ? options.mqtt_version(MQTTVERSION_5).clean_start(true) : options.clean_session(true))
        .connect_timeout(operationBound);
    try {
        if (!client.connect(options.finalize())->wait_for(operationBound + std::chrono::seconds(1)))
            throw std::runtime_error("no answer");
    } catch (const std::exception& e) {
        throw std::runtime_error("test MQTT client cannot connect to " + uri + ": " + e.what());
    }
}

MqttProbe::~MqttProbe()
{
    try {
        if (client.is_connected())
            client.disconnect()->wait_for(operationBound);
    } catch (const std::exception&) {
        // The broker may be gone already; nothing is left to close then.
    }
}

void MqttProbe::subscribe(const std::string& topic, int qos)
{
    if (!client.subscribe(topic, qos, mqtt::subscribe_options(ignoreOwn))->wait_for(operationBound))
        throw std::runtime_error("subscribe to " + topic + " not acknowledged");
}

void MqttProbe::publish(const std::string& topic, const std::string& payload)
{
    if (!client.publish(topic, payload.data(), payload.size(), 0, false)->wait_for(operationBound))
        throw std::runtime_error("publish to " + topic + " did not complete");
}

std::optional<MqttProbe::Message> MqttProbe::waitFor(const std::function<bool(const Message&)>& match,
                                                     std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    const auto found = [&] { return std::find_if(received.begin(), received.end(), match); };
    if (!arrived.wait_for(lock, timeout, [&] { return found() != received.end(); }))
        return std::nullopt;
    return *found();
}

std::size_t MqttProbe::count(const std::function<bool(const Message&)>& match)
{
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<std::size_t>(std::count_if(received.begin(), received.end(), match));
}

void MqttProbe::clear()
{
    std::lock_guard<std::mutex> lock(mutex);
    received.clear();
}

bool hasText(const std::string& payload, const std::string& key, const std::string& value)
{
    try {
        const auto object = Poco::JSON::Parser().parse(payload).extract<Poco::JSON::Object::Ptr>();
        return object->has(key) && object->get(key).isString() && object->getValue<std::string>(key) == value;
    } catch (...) {
        return false;
    }
}

} // namespace vlm::e2e
