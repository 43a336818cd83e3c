#include "http/HttpAdmission.h"

#include <algorithm>

#include <Poco/Logger.h>

#include "VelmoraCommon.h"

namespace vlm {
namespace {

Poco::Logger& logger()
{
    return Poco::Logger::get(logName());
}

int orShare(int configured, int share)
{
    return configured > 0 ? configured : std::max(1, share);
}

} // namespace

HttpCapacity httpCapacity(const HttpApiServerOptions& options)
{
    HttpCapacity capacity;
    capacity.threads = options.workerThreads;
    capacity.reservedHostThreads = orShare(options.reservedHostThreads, options.workerThreads / 8);
    capacity.maxStreams = orShare(options.maxStreams, options.workerThreads / 2);
    capacity.maxStreamsPerClient = orShare(options.maxStreamsPerClient, options.workerThreads / 4);
    capacity.maxWaitingRequests = orShare(options.maxWaitingRequests, options.workerThreads -
                                                                          capacity.reservedHostThreads -
                                                                          capacity.maxStreams);
    return capacity;
}

std::optional<HttpCapacityProblem> httpCapacityProblem(const HttpApiServerOptions& options)
{
    const HttpCapacity c = httpCapacity(options);
    if (c.maxStreamsPerClient > c.maxStreams)
        return HttpCapacityProblem{"http.max_streams_per_client",
                                   "must not exceed http.max_streams (" + std::to_string(c.maxStreams) + "), got " +
                                       std::to_string(c.maxStreamsPerClient)};
    const int needed = c.reservedHostThreads + c.maxStreams + c.maxWaitingRequests;
    if (needed > c.threads)
        return HttpCapacityProblem{
            "http.threads", "must hold http.reserved_host_threads + http.max_streams + http.max_waiting_requests = " +
                                std::to_string(c.reservedHostThreads) + " + " + std::to_string(c.maxStreams) + " + " +
                                std::to_string(c.maxWaitingRequests) + " = " + std::to_string(needed) + ", got " +
                                std::to_string(c.threads)};
    return std::nullopt;
}

HttpAdmission::HttpAdmission(const HttpCapacity& capacity) : capacity(capacity) {}

HttpAdmission::Kind HttpAdmission::classify(const std::string& path, const HttpRoute& route)
{
    const std::string prefix = hostRoutePrefix;
    if (path.compare(0, prefix.size(), prefix) == 0)
        return Kind::host;
    return route.stream ? Kind::stream : Kind::request;
}

HttpAdmission::Slot HttpAdmission::admit(Kind kind, const std::string& client)
{
    Slot slot;
    if (kind == Kind::host)
        return slot;
    std::uint64_t refusals = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (kind == Kind::request) {
            if (requests < capacity.maxWaitingRequests) {
                ++requests;
                slot.owner = this;
            } else {
                refusals = ++requestsRefused;
                slot.refusal = "too many requests in progress (" + std::to_string(requests) + ")";
            }
        } else if (streams >= capacity.maxStreams) {
            refusals = ++streamsRefused;
            slot.refusal = "too many event streams open (" + std::to_string(streams) + ")";
        } else {
            int& mine = streamsByClient[client];
            if (mine < capacity.maxStreamsPerClient) {
                ++mine;
                ++streams;
                slot.owner = this;
            } else {
                refusals = ++streamsRefusedPerClient;
                slot.refusal = "too many event streams open from " + client + " (" + std::to_string(mine) + ")";
            }
        }
    }
    if (slot.owner) {
        slot.kind = kind;
        slot.client = client;
    } else if (loggedOccurrence(refusals)) {
        logger().warning("http refused with 503: %s; refusal %s of this kind (logged first and every 1000th)",
                         slot.refusal, std::to_string(refusals));
    }
    return slot;
}

void HttpAdmission::release(Kind kind, const std::string& client)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (kind == Kind::request) {
        --requests;
        return;
    }
    --streams;
    const auto it = streamsByClient.find(client);
    if (it != streamsByClient.end() && --it->second <= 0)
        streamsByClient.erase(it);
}

HttpServerCounters HttpAdmission::counters() const
{
    HttpServerCounters counters;
    {
        std::lock_guard<std::mutex> lock(mutex);
        counters.openStreams = streams;
        counters.waitingRequests = requests;
    }
    counters.streamsRefused = streamsRefused.load();
    counters.streamsRefusedPerClient = streamsRefusedPerClient.load();
    counters.requestsRefused = requestsRefused.load();
    return counters;
}

HttpAdmission::Slot::Slot(Slot&& other) noexcept
    : owner(other.owner), kind(other.kind), client(std::move(other.client)), refusal(std::move(other.refusal))
{
    other.owner = nullptr;
}

HttpAdmission::Slot::~Slot()
{
    if (owner)
        owner->release(kind, client);
}

} // namespace vlm
