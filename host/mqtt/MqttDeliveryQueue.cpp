// Delivery threads of the host's MQTT client.
//
//   library network thread ──push──► lane[hash(topic) % N] ──► delivery thread N
//                                      (bounded over all lanes:      │ resolve handlers
//                                       count and bytes; full: drop) │ run them, no lock held
//
// The state lives in a shared object that every delivery thread holds too, so
// a thread whose handler outlasts close() can be left to finish on its own.

#include "mqtt/MqttDeliveryQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <Poco/Logger.h>

#include "VelmoraCommon.h"
#include "mqtt/MqttBurstLog.h"

namespace vlm {

struct MqttDeliveryQueue::State {
    State(Limits l, Resolver r)
        : limits(l), resolver(std::move(r)), logger(Poco::Logger::get(logName())), lanes(l.threads), wake(l.threads)
    {
    }

    const Limits limits;
    const Resolver resolver;  // never called once `closing` is set
    Poco::Logger& logger;

    // guards lanes, depth, depthBytes, the counters, resolving, closing,
    // dropLog and threads
    mutable std::mutex mutex;
    std::vector<std::deque<mqtt::const_message_ptr>> lanes;
    std::vector<std::condition_variable> wake;  // one per lane: a message came, or closing
    std::condition_variable progress;           // a resolve or a delivery ended
    std::size_t depth = 0;
    std::size_t depthBytes = 0;
    std::uint64_t delivered = 0;
    std::uint64_t dropped = 0;
    std::uint64_t started = 0;
    std::uint64_t finished = 0;
    std::size_t resolving = 0;
    bool closing = false;
    MqttBurstLog dropLog;
    std::vector<std::thread> threads;
};

namespace {

// The queue whose delivery thread this is, for the whole life of the thread.
thread_local const void* deliveringFor = nullptr;

std::size_t messageBytes(const mqtt::const_message_ptr& message)
{
    return message->get_topic().size() + message->get_payload_ref().size();
}

} // namespace

MqttDeliveryQueue::MqttDeliveryQueue(Limits limits, Resolver resolver)
{
    limits.threads = std::max<std::size_t>(1, limits.threads);
    state = std::make_shared<State>(limits, std::move(resolver));
    std::lock_guard<std::mutex> lock(state->mutex);
    for (std::size_t lane = 0; lane < limits.threads; ++lane)
        state->threads.emplace_back(&MqttDeliveryQueue::serve, state, lane);
}

MqttDeliveryQueue::~MqttDeliveryQueue()
{
    close(std::chrono::seconds(5));
}

bool MqttDeliveryQueue::onDeliveryThread()
{
    return deliveringFor != nullptr;
}

bool MqttDeliveryQueue::push(mqtt::const_message_ptr message)
{
    State& s = *state;
    const std::size_t bytes = messageBytes(message);
    const std::size_t lane = std::hash<std::string>{}(message->get_topic()) % s.lanes.size();
    bool accepted = false;
    std::uint64_t burst = 0;
    std::uint64_t droppedSoFar = 0;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.closing)
            return false;
        accepted = s.depth < s.limits.maxMessages && s.depthBytes + bytes <= s.limits.maxBytes;
        if (accepted) {
            s.lanes[lane].push_back(std::move(message));
            ++s.depth;
            s.depthBytes += bytes;
        } else {
            ++s.dropped;
            droppedSoFar = s.dropped;
            burst = s.dropLog.record();
        }
    }
    if (accepted) {
        s.wake[lane].notify_one();
        return true;
    }
    if (burst != 0)
        s.logger.error("mqtt delivery queue full (%z messages, %z bytes at most): dropped a message of %z bytes on %s; "
                       "%s dropped in this burst, %s in all",
                       s.limits.maxMessages, s.limits.maxBytes, bytes, message->get_topic(), std::to_string(burst),
                       std::to_string(droppedSoFar));
    return false;
}

void MqttDeliveryQueue::serve(std::shared_ptr<State> state, std::size_t lane)
{
    deliveringFor = state.get();
    State& s = *state;
    for (;;) {
        mqtt::const_message_ptr message;
        {
            std::unique_lock<std::mutex> lock(s.mutex);
            s.wake[lane].wait(lock, [&] { return s.closing || !s.lanes[lane].empty(); });
            if (s.closing)
                return;
            message = std::move(s.lanes[lane].front());
            s.lanes[lane].pop_front();
            --s.depth;
            s.depthBytes -= messageBytes(message);
            ++s.started;
            ++s.resolving;
        }
        const std::string& topic = message->get_topic();
        std::vector<MqttClient::MessageHandler> handlers;
        try {
            handlers = s.resolver(topic);
        } catch (const std::exception& e) {
            s.logger.error("mqtt delivery on %s: no handlers: %s", topic, std::string(e.what()));
        }
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            --s.resolving;
        }
        s.progress.notify_all();

        const std::string& payload = message->get_payload_str();
        for (const auto& handler : handlers) {
            try {
                handler(topic, payload);
            } catch (const std::exception& e) {
                s.logger.error("mqtt handler for topic %s threw: %s", topic, std::string(e.what()));
            } catch (...) {
                s.logger.error("mqtt handler for topic %s threw a non-standard exception", topic);
            }
        }
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            ++s.finished;
            ++s.delivered;
        }
        s.progress.notify_all();
    }
}

bool MqttDeliveryQueue::waitForRunning(std::chrono::milliseconds bound)
{
    State& s = *state;
    if (deliveringFor == &s)
        return false;  // the caller's own delivery could never finish meanwhile
    std::unique_lock<std::mutex> lock(s.mutex);
    const std::uint64_t target = s.started;
    return s.progress.wait_for(lock, bound, [&] { return s.finished >= target; });
}

void MqttDeliveryQueue::close(std::chrono::milliseconds bound)
{
    State& s = *state;
    std::vector<std::thread> threads;
    {
        std::unique_lock<std::mutex> lock(s.mutex);
        if (s.closing)
            return;
        s.closing = true;
        for (auto& queued : s.lanes)
            queued.clear();
        s.depth = 0;
        s.depthBytes = 0;
        threads.swap(s.threads);
        // Resolving is short; once it is over the owner's state is no longer used.
        s.progress.wait(lock, [&] { return s.resolving == 0; });
    }
    for (auto& lane : s.wake)
        lane.notify_all();

    const bool fromOwnThread = deliveringFor == &s;
    bool finished = false;
    if (!fromOwnThread) {
        std::unique_lock<std::mutex> lock(s.mutex);
        finished = s.progress.wait_for(lock, bound, [&] { return s.finished >= s.started; });
    }
    if (!finished && !fromOwnThread)
        s.logger.error("mqtt handler still running %d ms after close; left to finish on its own",
                       static_cast<int>(bound.count()));
    for (auto& thread : threads) {
        if (finished)
            thread.join();
        else
            thread.detach();
    }
}

MqttDeliveryQueue::Counters MqttDeliveryQueue::counters() const
{
    const State& s = *state;
    std::lock_guard<std::mutex> lock(s.mutex);
    Counters c;
    c.delivered = s.delivered;
    c.dropped = s.dropped;
    c.depth = s.depth;
    c.depthBytes = s.depthBytes;
    return c;
}

} // namespace vlm
