#include "app/MessageBus.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cctype>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Logger.h>

#include "VelmoraCommon.h"

namespace vlm::host {
namespace {

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

std::string excerpt(const std::string& text)
{
    constexpr std::size_t shown = 200;
    return text.size() <= shown ? text : text.substr(0, shown) + "...";
}

// The bus's own thread must not take the host's stop signals.
void blockStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// Floods are logged at their first message and then every 1000th.
bool startsLogLine(std::uint64_t countBefore, std::uint64_t countAfter)
{
    constexpr std::uint64_t every = 1000;
    return countBefore == 0 || countAfter / every > countBefore / every;
}

} // namespace

std::string normalizeGuid(const std::string& guid)
{
    auto begin = guid.begin();
    auto end = guid.end();
    while (begin != end && (std::isspace(static_cast<unsigned char>(*begin)) || *begin == '{'))
        ++begin;
    while (end != begin && (std::isspace(static_cast<unsigned char>(*(end - 1))) || *(end - 1) == '}'))
        --end;
    std::string normalized(begin, end);
    std::transform(normalized.begin(), normalized.end(), normalized.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return normalized;
}

std::set<std::string> busReceivers(const Poco::JSON::Object& message)
{
    std::set<std::string> names;
    const auto to = message.getArray("to");
    if (!to)
        return names;
    for (std::size_t i = 0; i < to->size(); ++i) {
        const Poco::Dynamic::Var entry = to->get(static_cast<unsigned>(i));
        if (entry.isString())
            names.insert(normalizeGuid(entry.extract<std::string>()));
    }
    return names;
}

MessageBus::MessageBus(Options opts) : options(opts) {}

MessageBus::MessageBus() : MessageBus(Options{}) {}

MessageBus::~MessageBus()
{
    stop();
}

void MessageBus::start()
{
    if (worker.joinable())
        return;
    worker = std::thread([this] {
        blockStopSignals();
        run();
    });
}

void MessageBus::stop()
{
    std::size_t left = 0;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        if (stopping && !worker.joinable())
            return;
        stopping = true;
        left = queue.size();
        dropped += left;
        handled += left;
        queue.clear();
        queuedBytes = 0;
    }
    queueReady.notify_all();
    queueIdle.notify_all();
    if (worker.joinable())
        worker.join();
    if (left > 0)
        logger().warning("bus stopped with %z undelivered message(s)", left);

    std::vector<std::shared_ptr<BusTap>> closing;
    {
        std::lock_guard<std::mutex> lock(receiversMutex);
        closing.swap(taps);
    }
    for (const auto& tap : closing)
        tap->close();
}

void MessageBus::attach(const std::string& guid, std::shared_ptr<PluginBase> plugin)
{
    std::lock_guard<std::mutex> lock(receiversMutex);
    receivers.emplace_back(normalizeGuid(guid), std::move(plugin));
}

void MessageBus::detachAll()
{
    std::vector<std::pair<std::string, std::shared_ptr<PluginBase>>> released;
    {
        std::lock_guard<std::mutex> lock(receiversMutex);
        released.swap(receivers);
    }
    // The plug-ins are released here, outside the lock: a destructor may post.
}

std::uint64_t MessageBus::post(std::string text, std::string origin) noexcept
{
    try {
        const std::size_t size = text.size();
        if (size > options.messageByteLimit) {
            refuseOversize(size, origin);
            return 0;
        }
        std::uint64_t seq = 0;
        bool burstStarts = false;
        std::size_t messagesThen = 0;
        std::size_t bytesThen = 0;
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            const bool countFull = queue.size() >= options.queueLimit;
            const bool bytesFull = queuedBytes + size > options.queueByteLimit;
            if (stopping) {
                ++dropped;
            } else if (countFull || bytesFull) {
                ++dropped;
                if (bytesFull && !countFull)
                    ++droppedForBytes;
                ++overflowDrops;
                burstStarts = !overflowing;
                overflowing = true;
                messagesThen = queue.size();
                bytesThen = queuedBytes;
            } else {
                seq = nextSeq++;
                queuedBytes += size;
                queue.push_back(BusMessage{seq, std::move(text), std::move(origin), true});
            }
        }
        if (burstStarts)
            logger().error("bus queue full (%z messages, %z bytes, a message of %z bytes): dropping messages, the "
                           "first from %s",
                           messagesThen, bytesThen, size, origin);
        if (seq != 0)
            queueReady.notify_one();
        return seq;
    } catch (...) {
        // Out of memory while queueing: the sender's thread must not see it.
        ++dropped;
        return 0;
    }
}

void MessageBus::refuseOversize(std::size_t size, const std::string& origin)
{
    const std::uint64_t before = oversize.fetch_add(1);
    if (startsLogLine(before, before + 1))
        logger().error("bus: refused a message of %z bytes from %s: larger than %z bytes (%s refused so far)", size,
                       origin, options.messageByteLimit, std::to_string(before + 1));
}

std::shared_ptr<BusTap> MessageBus::openTap()
{
    auto tap = std::make_shared<BusTap>(options.tapQueueLimit, options.tapQueueByteLimit);
    bool closed = false;
    {
        std::lock_guard<std::mutex> queueLock(queueMutex);
        closed = stopping;
    }
    if (closed) {
        tap->close();
        return tap;
    }
    std::lock_guard<std::mutex> lock(receiversMutex);
    taps.push_back(tap);
    return tap;
}

void MessageBus::closeTap(const std::shared_ptr<BusTap>& tap)
{
    {
        std::lock_guard<std::mutex> lock(receiversMutex);
        taps.erase(std::remove(taps.begin(), taps.end(), tap), taps.end());
    }
    tap->close();
}

MessageBus::Stats MessageBus::stats() const
{
    Stats s;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        s.posted = nextSeq - 1;
        s.queued = queue.size();
        s.queuedBytes = queuedBytes;
    }
    s.delivered = delivered;
    s.unaddressed = unaddressed;
    s.rejected = rejected;
    s.dropped = dropped;
    s.droppedForBytes = droppedForBytes;
    s.oversize = oversize;
    s.tapDropped = tapDropped;
    std::lock_guard<std::mutex> lock(receiversMutex);
    s.taps = taps.size();
    return s;
}

bool MessageBus::waitUntilIdle(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(queueMutex);
    return queueIdle.wait_for(lock, timeout, [&] { return queue.empty() && handled + 1 >= nextSeq; });
}

void MessageBus::run()
{
    for (;;) {
        BusMessage message;
        {
            std::unique_lock<std::mutex> lock(queueMutex);
            queueReady.wait(lock, [&] { return stopping || !queue.empty(); });
            if (stopping)
                return;
            message = std::move(queue.front());
            queue.pop_front();
            queuedBytes -= message.text.size();
            if (overflowing && queue.size() <= options.queueLimit / 2 && queuedBytes <= options.queueByteLimit / 2) {
                overflowing = false;
                logger().warning("bus queue has room again after dropping %s message(s)",
                                 std::to_string(overflowDrops));
                overflowDrops = 0;
            }
        }
        handle(message);
        {
            std::lock_guard<std::mutex> lock(queueMutex);
            ++handled;
        }
        queueIdle.notify_all();
    }
}

void MessageBus::offerToTaps(const std::vector<std::shared_ptr<BusTap>>& tapsNow, const BusMessage& message)
{
    for (const auto& tap : tapsNow) {
        const BusTap::Offered offered = tap->offer(message);
        if (offered.dropped == 0)
            continue;
        tapDropped += offered.dropped;
        if (startsLogLine(offered.droppedTotal - offered.dropped, offered.droppedTotal))
            logger().warning("bus tap reader behind (at most %z messages, %z bytes): %s message(s) dropped for it "
                             "so far, the last of %z bytes",
                             options.tapQueueLimit, options.tapQueueByteLimit, std::to_string(offered.droppedTotal),
                             message.text.size());
    }
}

void MessageBus::handle(BusMessage& message)
{
    Poco::JSON::Object::Ptr object;
    std::string problem;
    try {
        const Poco::Dynamic::Var parsed = Poco::JSON::Parser().parse(message.text);
        if (parsed.type() == typeid(Poco::JSON::Object::Ptr))
            object = parsed.extract<Poco::JSON::Object::Ptr>();
        else
            problem = "not a JSON object";
    } catch (const Poco::Exception& e) {
        problem = "not JSON (" + e.displayText() + ")";
    }
    message.wellFormed = !object.isNull();

    std::vector<std::pair<std::string, std::shared_ptr<PluginBase>>> receiversNow;
    std::vector<std::shared_ptr<BusTap>> tapsNow;
    {
        std::lock_guard<std::mutex> lock(receiversMutex);
        receiversNow = receivers;
        tapsNow = taps;
    }
    offerToTaps(tapsNow, message);

    if (!object) {
        ++rejected;
        logger().error("bus: dropped a message from %s: %s: %s", message.origin, problem, excerpt(message.text));
        return;
    }
    const std::set<std::string> names = busReceivers(*object);
    std::size_t count = 0;
    for (const auto& [guid, plugin] : receiversNow) {
        if (names.count(guid) == 0)
            continue;
        ++count;
        ++delivered;
        try {
            plugin->pushMessage(message.text);
        } catch (const std::exception& e) {
            logger().error("bus: plug-in %s failed to take a message: %s", guid, std::string(e.what()));
        } catch (...) {
            logger().error("bus: plug-in %s failed to take a message", guid);
        }
    }
    if (count == 0) {
        ++unaddressed;
        if (logger().debug())
            logger().debug("bus: no loaded plug-in is addressed by a message from %s: %s", message.origin,
                           excerpt(message.text));
    }
}

} // namespace vlm::host
