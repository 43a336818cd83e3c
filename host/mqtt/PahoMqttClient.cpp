// Subscriptions, delivery and publishing of PahoMqttClient; the link itself is
// kept in PahoMqttLink.cpp.

#include "mqtt/PahoMqttClientImpl.h"

#include <algorithm>
#include <atomic>
#include <random>

#include <unistd.h>

#include "VelmoraCommon.h"
#include "mqtt/MqttTopicFilter.h"

namespace vlm {
namespace {

// Two clients with one identifier would throw each other off the broker, so an
// identifier nobody configured must be unique per process and per client.
std::string makeClientId()
{
    static std::atomic<unsigned> created{0};
    std::random_device random;
    return "velmora-" + std::to_string(::getpid()) + "-" + std::to_string(++created) + "-" +
           std::to_string(random() % 100000);
}

} // namespace

PahoMqttClient::Impl::Impl(MqttClientOptions opts)
    : options(std::move(opts)),
      uri(normalizeMqttServerUri(options.serverUri)),
      logger(Poco::Logger::get(logName())),
      client(uri, options.clientId.empty() ? makeClientId() : options.clientId),
      delivery({options.deliveryThreads, options.deliveryQueueMessages, options.deliveryQueueBytes},
               [this](const std::string& topic) { return handlersFor(topic); })
{
    connectOptions.set_clean_session(true);
    connectOptions.set_mqtt_version(MQTTVERSION_3_1_1);
    connectOptions.set_keep_alive_interval(options.keepAlive);
    connectOptions.set_connect_timeout(options.connectTimeout);
    connectOptions.set_automatic_reconnect(false);
    if (!options.userName.empty()) {
        connectOptions.set_user_name(options.userName);
        connectOptions.set_password(options.password);
    }
    if (isTlsMqttUri(uri)) {
        // The library's defaults do not check the host name. No OpenSSL error
        // handler: the library hands it a pointer into a copy of these options
        // that is gone before the handshake runs.
        ::mqtt::ssl_options tls;
        if (!options.caFile.empty())
            tls.set_trust_store(options.caFile);
        tls.set_ssl_version(MQTT_SSL_VERSION_TLS_1_2);
        tls.set_enable_server_cert_auth(!options.tlsInsecure);
        tls.set_verify(!options.tlsInsecure);
        connectOptions.set_ssl(std::move(tls));
    }
    warnAboutLinkSecurity();
    client.set_message_callback([this](::mqtt::const_message_ptr message) { onMessage(message); });
    client.set_connection_lost_handler([this](const std::string& cause) { onConnectionLost(cause); });
}

void PahoMqttClient::Impl::warnAboutLinkSecurity()
{
    if (isTlsMqttUri(uri)) {
        if (options.tlsInsecure)
            logger.warning("mqtt.tls_insecure is set: the certificate and host name of %s are not checked; whoever "
                           "sits between this host and the broker can read and change the traffic",
                           uri);
        return;
    }
    if ((!options.userName.empty() || !options.password.empty()) && !isLoopbackMqttUri(uri))
        logger.warning("mqtt user name and password go to %s unencrypted; use an ssl:// or mqtts:// broker address",
                       uri);
}

bool PahoMqttClient::Impl::onDeliveryThread()
{
    return MqttDeliveryQueue::onDeliveryThread();
}

void PahoMqttClient::Impl::onMessage(const ::mqtt::const_message_ptr& message)
{
    if (!enterCallback())
        return;
    // The library has read the message already; what matters is that nothing
    // parses, copies or queues it.
    const std::size_t size = message->get_payload_ref().size();
    if (size > options.maxPayloadBytes) {
        const std::uint64_t total = ++oversizeRefused;
        std::uint64_t burst = 0;
        {
            std::lock_guard<std::mutex> lock(burstLogMutex);
            burst = oversizeLog.record();
        }
        if (burst != 0)
            logger.error("mqtt message on %s refused: %z bytes, above mqtt.max_payload_bytes (%z); %s refused in "
                         "this burst, %s in all",
                         message->get_topic(), size, options.maxPayloadBytes, std::to_string(burst),
                         std::to_string(total));
    } else {
        delivery.push(message);
    }
    leaveCallback();
}

std::vector<MqttClient::MessageHandler> PahoMqttClient::Impl::handlersFor(const std::string& topic)
{
    std::vector<MessageHandler> matching;
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    for (const auto& subscription : subscriptions)
        if (mqttTopicMatches(subscription.filter, topic))
            matching.insert(matching.end(), subscription.handlers.begin(), subscription.handlers.end());
    return matching;
}

void PahoMqttClient::Impl::subscribeAtBroker(const std::string& filter, int qos, bool wait)
{
    try {
        auto token = client.subscribe(filter, qos);
        if (wait && !token->wait_for(options.operationTimeout))
            logger.error("mqtt subscribe %s: no answer from %s in time", filter, uri);
    } catch (const std::exception& e) {
        // Kept on record: the next reconnect tries it again.
        logger.error("mqtt subscribe %s failed: %s", filter, std::string(e.what()));
    }
}

void PahoMqttClient::Impl::unsubscribeAtBroker(const std::string& filter, bool wait)
{
    try {
        auto token = client.unsubscribe(filter);
        if (wait && !token->wait_for(options.operationTimeout))
            logger.error("mqtt unsubscribe %s: no answer from %s in time", filter, uri);
    } catch (const std::exception& e) {
        logger.error("mqtt unsubscribe %s failed: %s", filter, std::string(e.what()));
    }
}

bool PahoMqttClient::Impl::enterCallback()
{
    std::lock_guard<std::mutex> lock(callbackMutex);
    if (closed)
        return false;
    ++callbacksStarted;
    return true;
}

void PahoMqttClient::Impl::leaveCallback()
{
    // Notified under the lock: the waiter may destroy this state as soon as it
    // sees the count, and must not do so while notify_all still runs.
    std::lock_guard<std::mutex> lock(callbackMutex);
    ++callbacksFinished;
    callbackFinished.notify_all();
}

void PahoMqttClient::Impl::waitForRunningCallbacks()
{
    std::unique_lock<std::mutex> lock(callbackMutex);
    const std::uint64_t started = callbacksStarted;
    if (!callbackFinished.wait_for(lock, options.operationTimeout, [&] { return callbacksFinished >= started; }))
        logger.error("mqtt callback still running after %d ms", static_cast<int>(options.operationTimeout.count()));
}

void PahoMqttClient::Impl::closeCallbacks()
{
    {
        std::lock_guard<std::mutex> lock(callbackMutex);
        closed = true;
    }
    if (!onDeliveryThread())
        waitForRunningCallbacks();
}

PahoMqttClient::PahoMqttClient(MqttClientOptions options) : impl(std::make_unique<Impl>(std::move(options))) {}

PahoMqttClient::~PahoMqttClient()
{
    impl->stopKeeping();
    impl->closeCallbacks();
    impl->delivery.close(impl->options.operationTimeout);
}

PahoMqttClient::Counters PahoMqttClient::counters() const
{
    const MqttDeliveryQueue::Counters queue = impl->delivery.counters();
    Counters c;
    c.oversizeRefused = impl->oversizeRefused.load();
    c.queueDrops = queue.dropped;
    c.delivered = queue.delivered;
    c.queueDepth = queue.depth;
    c.queueBytes = queue.depthBytes;
    c.published = impl->published.load();
    c.publishFailures = impl->publishFailures.load();
    c.linkLosses = impl->linkLosses.load();
    return c;
}

bool PahoMqttClient::connect()
{
    impl->startKeeping();
    return impl->waitForAttemptOutcome();
}

void PahoMqttClient::disconnect()
{
    impl->stopKeeping();
}

bool PahoMqttClient::waitUntilReady(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(impl->linkMutex);
    return impl->linkChanged.wait_for(lock, timeout, [&] { return impl->ready; });
}

std::string PahoMqttClient::serverUri() const
{
    return impl->uri;
}

std::string PahoMqttClient::getstation()
{
    return impl->options.stationSerial;
}

bool PahoMqttClient::isConnected() const
{
    return impl->linkUp.load();
}

bool PahoMqttClient::Subscribe(MessageHandler handler, const std::string& topic, int qos)
{
    if (!handler || !isValidMqttTopicFilter(topic) || qos < 0 || qos > 2) {
        impl->logger.error("mqtt subscribe refused: topic \"%s\", qos %d%s", topic, qos,
                           std::string(handler ? "" : ", no handler"));
        return false;
    }
    bool newAtBroker = false;
    {
        std::lock_guard<std::mutex> lock(impl->subscriptionsMutex);
        auto& all = impl->subscriptions;
        auto it = std::find_if(all.begin(), all.end(), [&](const Impl::Subscription& s) { return s.filter == topic; });
        if (it == all.end()) {
            all.push_back({topic, qos, {std::move(handler)}});
            newAtBroker = true;
        } else {
            it->handlers.push_back(std::move(handler));
            newAtBroker = qos > it->qos;
            it->qos = std::max(it->qos, qos);
        }
    }
    // Read after recording: a keeper that restores subscriptions concurrently
    // either saw this one or set the link up before this read.
    if (newAtBroker && impl->linkUp.load())
        impl->subscribeAtBroker(topic, qos, !Impl::onDeliveryThread());
    return true;
}

bool PahoMqttClient::Unsubscribe(const std::string& topic)
{
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(impl->subscriptionsMutex);
        auto& all = impl->subscriptions;
        auto it = std::find_if(all.begin(), all.end(), [&](const Impl::Subscription& s) { return s.filter == topic; });
        if (it != all.end()) {
            all.erase(it);
            found = true;
        }
    }
    if (!found)
        return false;
    const bool wait = !Impl::onDeliveryThread();
    if (impl->linkUp.load())
        impl->unsubscribeAtBroker(topic, wait);
    if (wait && !impl->delivery.waitForRunning(impl->options.operationTimeout))
        impl->logger.error("mqtt handler still running %d ms after unsubscribing %s",
                           static_cast<int>(impl->options.operationTimeout.count()), topic);
    return true;
}

bool PahoMqttClient::PublishMessage(const std::string& payload, const std::string& topic, int qos, int retained,
                                    int waitSeconds)
{
    if (!isValidMqttTopicName(topic) || qos < 0 || qos > 2) {
        ++impl->publishFailures;
        impl->logger.error("mqtt publish refused: topic \"%s\", qos %d", topic, qos);
        return false;
    }
    if (!impl->linkUp.load()) {
        ++impl->publishFailures;
        return false;
    }
    try {
        auto token = impl->client.publish(topic, payload.data(), payload.size(), qos, retained != 0);
        ++impl->published;
        if (waitSeconds > 0 && !Impl::onDeliveryThread() &&
            !token->wait_for(std::chrono::seconds(waitSeconds))) {
            ++impl->publishFailures;
            impl->logger.error("mqtt publish on %s not completed within %d s", topic, waitSeconds);
            return false;
        }
        return true;
    } catch (const std::exception& e) {
        ++impl->publishFailures;
        impl->logger.error("mqtt publish on %s failed: %s", topic, std::string(e.what()));
        return false;
    }
}

} // namespace vlm
