#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ForwardMetrics.h"
#include "OutboundWorker.h"
#include "PublishSequence.h"

namespace pilot_rpc {
class rpc_client;
}

namespace vlm {

class PilotControlP;

/// A route mission that could not be published, kept for a later retry.
struct FailedRouteMission {
    std::string payload;
    std::string topic;
    std::string api;
};

/// All working state of one PilotControlP. HTTP worker threads, the MQTT
/// delivery thread, both RPC I/O threads and pool threads touch it at once, so
/// every field is either atomic or guarded by the mutex named beside it.
struct PilotControlPImpl {
    /// The plug-in object itself, for handlers and tasks that must keep it
    /// alive while they run and must not keep it alive while they wait. Set
    /// once by createInstance, before any other thread can see the object.
    std::weak_ptr<PilotControlP> self;

    // Settings read from the micro service at start.
    std::atomic<int> sixAxisArSeat{0};
    std::atomic<int> appType{0};
    std::atomic<bool> pilotConnected{false};

    mutable std::mutex identityMutex;  // guards pilotId, stationId, serviceAddress, servicePort
    std::string pilotId;
    std::string stationId;
    std::string serviceAddress;  // as start was given it, for the health report
    unsigned short servicePort = 0;

    mutable std::mutex clientMutex;  // guards rpcClient, subClient (stop resets them)
    std::shared_ptr<pilot_rpc::rpc_client> rpcClient;
    std::shared_ptr<pilot_rpc::rpc_client> subClient;

    /// Set by stop: waiting HTTP callers and event streams end early.
    std::atomic<bool> stopped{false};

    std::atomic<int> linkType{0};
    std::atomic<bool> localMqtt{false};
    std::atomic<bool> telemetryPublished{false};
    std::atomic<int> telemFrequency{0};
    std::atomic<int64_t> lastTelemetryTime{0};  // 100 ns ticks since 1970

    mutable std::mutex cacheMutex;  // guards the last* answers below
    std::string lastTelemetry;
    std::string lastRoute;
    std::string lastProgress;
    std::string lastRunInfo;
    std::string lastBinInfo;
    std::string lastSoftUpload;
    std::string lastSoftUpdateStatus;
    std::string lastUpdateProgress;
    std::string lastMagCompassCali;

    /// The service's wrapped events, in the order they arrived, until a pool
    /// thread (or the outbound worker) drains them.
    PublishSequence publications;
    /// Set while a drain of `publications` waits on the outbound worker, so a
    /// flood with the pool full queues one drain there, not one per event.
    std::atomic<bool> drainPosted{false};

    /// Publishing work handed off by the RPC I/O threads: the direct
    /// publications of the dispatch, answers, and the drains of
    /// `publications` when the host pool has no free thread.
    OutboundWorker outbound;

    /// Requests refused because their frame would reach the link's limit.
    std::atomic<std::uint64_t> oversizeRequestsRefused{0};
    /// Error answers that left the request's body out because it was too big.
    std::atomic<std::uint64_t> errorEchoesTrimmed{0};

    /// Requests of each front by outcome, with their latency.
    ForwardMetrics forwards;
    /// Event streams being served right now.
    std::atomic<int> streamsOpen{0};

    mutable std::mutex publishMutex;  // guards responseStatus, failedRouteMissions
    std::map<std::string, int> responseStatus;
    std::vector<FailedRouteMission> failedRouteMissions;

    /// Publications dropped so far by the outbound worker and the wrapped
    /// events' sequence together, by class: the reports count them as one.
    OutboundDrops outboundDrops() const
    {
        OutboundDrops sum = outbound.dropped();
        const OutboundDrops sequenced = publications.dropped();
        for (std::size_t c = 0; c < outboundClassCount; ++c)
            sum.byClass[c] += sequenced.byClass[c];
        return sum;
    }

    std::string getPilotId() const
    {
        std::lock_guard<std::mutex> lock(identityMutex);
        return pilotId;
    }
    void setPilotId(std::string id)
    {
        std::lock_guard<std::mutex> lock(identityMutex);
        pilotId = std::move(id);
    }
    std::string getStationId() const
    {
        std::lock_guard<std::mutex> lock(identityMutex);
        return stationId;
    }
    void setStationId(std::string id)
    {
        std::lock_guard<std::mutex> lock(identityMutex);
        stationId = std::move(id);
    }
    std::shared_ptr<pilot_rpc::rpc_client> callClient() const
    {
        std::lock_guard<std::mutex> lock(clientMutex);
        return rpcClient;
    }
    std::shared_ptr<pilot_rpc::rpc_client> subscriptionClient() const
    {
        std::lock_guard<std::mutex> lock(clientMutex);
        return subClient;
    }
};

} // namespace vlm
