// Link keeping of PahoMqttClient.
//
// One keeper thread per client owns every connection attempt:
//
//   connect() ──► keeper: attempt ──ok──► restore subscriptions ──► ready
//                   ▲        │ failed                                  │
//                   │        ▼                                         │ connection lost
//                   └── pause (min delay, doubled up to max) ◄─────────┘ (library thread)
//
// The library's own automatic reconnect is off: it does not retry a first
// connection that fails, and its pauses are whole seconds. disconnect() clears
// `keeping` and joins the keeper, whose longest wait is one connection attempt.

#include "mqtt/PahoMqttClientImpl.h"

#include <algorithm>

#include "VelmoraCommon.h"

namespace vlm {

void PahoMqttClient::Impl::startKeeping()
{
    std::lock_guard<std::mutex> lock(linkMutex);
    if (keeping)
        return;
    keeping = true;
    keeper = std::thread([this] { keepLink(); });
}

bool PahoMqttClient::Impl::waitForAttemptOutcome()
{
    const auto bound = std::chrono::duration_cast<std::chrono::milliseconds>(options.connectTimeout) +
                       options.operationTimeout + std::chrono::seconds(2);
    std::unique_lock<std::mutex> lock(linkMutex);
    const std::uint64_t before = attemptsFinished;
    linkChanged.wait_for(lock, bound, [&] { return ready || attemptsFinished > before || !keeping; });
    return ready;
}

void PahoMqttClient::Impl::stopKeeping()
{
    std::thread stopped;
    {
        std::lock_guard<std::mutex> lock(linkMutex);
        keeping = false;
        stopped = std::move(keeper);
    }
    linkChanged.notify_all();
    if (stopped.joinable())
        stopped.join();

    if (linkUp.exchange(false)) {
        try {
            auto token = client.disconnect(static_cast<int>(options.operationTimeout.count()));
            if (!token->wait_for(options.operationTimeout + std::chrono::seconds(1)))
                logger.error("mqtt disconnect from %s did not finish in time", uri);
        } catch (const std::exception& e) {
            logger.error("mqtt disconnect from %s failed: %s", uri, std::string(e.what()));
        }
    }
    {
        std::lock_guard<std::mutex> lock(linkMutex);
        ready = false;
    }
    linkChanged.notify_all();
}

void PahoMqttClient::Impl::keepLink()
{
    auto pause = options.reconnectMinDelay;
    bool failing = false;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(linkMutex);
            linkChanged.wait(lock, [&] { return !keeping || !linkUp.load(); });
            if (!keeping)
                return;
            ready = false;
        }
        const bool up = attemptConnect(failing);
        {
            std::lock_guard<std::mutex> lock(linkMutex);
            ++attemptsFinished;
            ready = up && linkUp.load();
        }
        linkChanged.notify_all();
        if (up) {
            pause = options.reconnectMinDelay;
            failing = false;
            continue;
        }
        failing = true;
        std::unique_lock<std::mutex> lock(linkMutex);
        if (linkChanged.wait_for(lock, pause, [&] { return !keeping; }))
            return;
        pause = std::min(pause * 2, options.reconnectMaxDelay);
    }
}

bool PahoMqttClient::Impl::attemptConnect(bool quiet)
{
    const std::uint64_t lossesBefore = linkLosses.load();
    try {
        auto token = client.connect(connectOptions);
        // The library ends every attempt within connectTimeout; the margin only
        // guards against a library that does not.
        if (!token->wait_for(options.connectTimeout + std::chrono::seconds(2))) {
            logger.error("mqtt connect to %s did not finish in time", uri);
            return false;
        }
    } catch (const std::exception& e) {
        // A retry series logs its first failure only, so a broker that stays
        // away does not flood the log.
        if (quiet)
            logger.debug("mqtt connect to %s failed again: %s", uri, std::string(e.what()));
        else
            logger.error("mqtt connect to %s failed: %s%s", uri, std::string(e.what()), tlsRequirement());
        return false;
    }
    linkUp = true;
    if (linkLosses.load() != lossesBefore) {
        linkUp = false;
        return false;
    }
    restoreSubscriptions();
    logger.information("mqtt connected to %s", uri);
    return linkUp.load();
}

std::string PahoMqttClient::Impl::tlsRequirement() const
{
    // The library reports a refused certificate as a plain connect failure
    // (a wrong host name without any reason at all), so say what was asked.
    if (!isTlsMqttUri(uri) || options.tlsInsecure)
        return {};
    return " (TLS: the broker's certificate must chain to a CA in " +
           (options.caFile.empty() ? std::string("the system's trust store") : options.caFile) +
           " and be issued for " + mqttUriHost(uri) + ")";
}

void PahoMqttClient::Impl::restoreSubscriptions()
{
    std::vector<std::pair<std::string, int>> filters;
    {
        std::lock_guard<std::mutex> lock(subscriptionsMutex);
        for (const auto& subscription : subscriptions)
            filters.emplace_back(subscription.filter, subscription.qos);
    }
    for (const auto& [filter, qos] : filters)
        subscribeAtBroker(filter, qos, true);
}

void PahoMqttClient::Impl::onConnectionLost(const std::string& cause)
{
    if (!enterCallback())
        return;
    ++linkLosses;
    linkUp = false;
    logger.error("mqtt connection to %s lost: %s", uri, cause.empty() ? std::string("no reason given") : cause);
    {
        std::lock_guard<std::mutex> lock(linkMutex);
        ready = false;
        linkChanged.notify_all();
    }
    leaveCallback();
}

} // namespace vlm
