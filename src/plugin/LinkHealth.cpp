#include "LinkHealth.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sstream>
#include <vector>

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include "PilotControlPImpl.h"
#include "ReportCopy.h"
#include "VelmoraExport.h"
#include "rpc/rpc_client.h"

namespace vlm {
namespace {

struct LiveInstances {
    std::mutex mutex;  // guards states
    std::vector<std::weak_ptr<PilotControlPImpl>> states;
};

LiveInstances& liveInstances()
{
    static LiveInstances all;
    return all;
}

std::vector<std::shared_ptr<PilotControlPImpl>> liveStatesOf(LiveInstances& all)
{
    std::vector<std::weak_ptr<PilotControlPImpl>> weak;
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        weak = all.states;
    }
    // Locked outside the registry's mutex: an instance whose last owner this
    // turns out to be is destroyed below, and its destruction must not meet
    // the registry locked.
    std::vector<std::shared_ptr<PilotControlPImpl>> live;
    for (const auto& w : weak)
        if (auto state = w.lock())
            live.push_back(std::move(state));
    return live;
}

Poco::JSON::Object::Ptr describeLink(const std::shared_ptr<pilot_rpc::rpc_client>& client)
{
    Poco::JSON::Object::Ptr link = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    link->set("connected", client && client->has_connected());
    Poco::Dynamic::Var age;
    if (client) {
        if (const auto last = client->last_receive_time()) {
            const auto elapsed = std::chrono::steady_clock::now() - *last;
            age = static_cast<Poco::Int64>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
        }
    }
    link->set("last_frame_age_ms", age);
    link->set("reconnects", static_cast<Poco::UInt64>(client ? client->reconnect_count() : 0));
    return link;
}

Poco::JSON::Object::Ptr describeInstance(const PilotControlPImpl& state)
{
    Poco::JSON::Object::Ptr entry = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    {
        std::lock_guard<std::mutex> lock(state.identityMutex);
        entry->set("service_address", state.serviceAddress);
        entry->set("service_port", state.servicePort);
    }
    Poco::JSON::Object::Ptr links = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    links->set("call", describeLink(state.callClient()));
    links->set("subscription", describeLink(state.subscriptionClient()));
    entry->set("links", links);

    const OutboundDrops drops = state.outboundDrops();
    Poco::JSON::Object::Ptr counters = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    counters->set("oversize_requests_refused", static_cast<Poco::UInt64>(state.oversizeRequestsRefused.load()));
    counters->set("error_echoes_trimmed", static_cast<Poco::UInt64>(state.errorEchoesTrimmed.load()));
    counters->set("stale_telemetry_dropped", static_cast<Poco::UInt64>(drops.of(OutboundClass::staleTelemetry)));
    counters->set("event_publications_dropped", static_cast<Poco::UInt64>(drops.of(OutboundClass::event)));
    counters->set("command_answers_dropped", static_cast<Poco::UInt64>(drops.of(OutboundClass::answer)));
    entry->set("counters", counters);
    return entry;
}

} // namespace

void registerLinkHealth(const std::shared_ptr<PilotControlPImpl>& state)
{
    LiveInstances& all = liveInstances();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.states.erase(std::remove_if(all.states.begin(), all.states.end(),
                                    [](const std::weak_ptr<PilotControlPImpl>& w) { return w.expired(); }),
                     all.states.end());
    all.states.push_back(state);
}

std::vector<std::shared_ptr<PilotControlPImpl>> liveInstanceStates()
{
    return liveStatesOf(liveInstances());
}

std::string describeLinkHealth()
{
    Poco::JSON::Array::Ptr instances = new Poco::JSON::Array;
    for (const auto& state : liveInstanceStates())
        instances->add(describeInstance(*state));
    Poco::JSON::Object report(Poco::JSON_PRESERVE_KEY_ORDER);
    report.set("instances", instances);
    std::ostringstream out;
    report.stringify(out);
    return out.str();
}

} // namespace vlm

extern "C" VLM_EXPORT std::size_t PluginLinkHealth(char* buffer, std::size_t size)
{
    std::string text;
    try {
        text = vlm::describeLinkHealth();
    } catch (const std::exception&) {
        // Never throws into the host: an empty object says "no report".
        text = "{}";
    }
    return vlm::copyReport(text, buffer, size);
}
