#include "PluginMetrics.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "ForwardMetrics.h"
#include "LinkHealth.h"
#include "PilotControlPImpl.h"
#include "ReportCopy.h"
#include "VelmoraExport.h"
#include "rpc/rpc_client.h"

namespace vlm {
namespace {

std::string escaped(const std::string& value)
{
    std::string out;
    for (char c : value) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out;
}

// One report; each family's samples, all instances together, under its TYPE line.
class Report {
public:
    Report() { out.precision(15); }
    void declare(const char* name, const char* type, const char* help)
    {
        out << "# HELP " << name << ' ' << help << '\n' << "# TYPE " << name << ' ' << type << '\n';
    }
    // `labels` is the text between the braces after the service label, may be empty.
    template <typename Number>
    void sample(const std::string& name, const std::string& service, const std::string& labels, Number value)
    {
        out << name << "{service=\"" << service << '"' << (labels.empty() ? "" : ",") << labels << "} " << value
            << '\n';
    }
    std::string text() const { return out.str(); }

private:
    std::ostringstream out;
};

struct Instance {
    std::string service;  // escaped
    std::shared_ptr<PilotControlPImpl> state;
    std::shared_ptr<pilot_rpc::rpc_client> call;
    std::shared_ptr<pilot_rpc::rpc_client> subscription;
};

std::vector<Instance> instances()
{
    std::vector<Instance> all;
    for (auto& state : liveInstanceStates()) {
        Instance entry;
        {
            std::lock_guard<std::mutex> lock(state->identityMutex);
            entry.service = escaped(state->serviceAddress + ":" + std::to_string(state->servicePort));
        }
        entry.call = state->callClient();
        entry.subscription = state->subscriptionClient();
        entry.state = std::move(state);
        all.push_back(std::move(entry));
    }
    return all;
}

constexpr ForwardFront fronts[] = {ForwardFront::http, ForwardFront::mqtt, ForwardFront::bus};
constexpr ForwardOutcome outcomes[] = {ForwardOutcome::answered, ForwardOutcome::apiNotExist,
                                       ForwardOutcome::vehicleNotConnected, ForwardOutcome::serviceCallFailed,
                                       ForwardOutcome::linkError};

void describeForwards(Report& report, const std::vector<Instance>& all)
{
    report.declare("forwarded_requests_total", "counter", "Requests the plug-in's fronts handled, by outcome.");
    for (const auto& instance : all)
        for (ForwardFront front : fronts)
            for (ForwardOutcome outcome : outcomes)
                report.sample("forwarded_requests_total", instance.service,
                              std::string("front=\"") + forwardFrontName(front) + "\",outcome=\"" +
                                  forwardOutcomeName(outcome) + '"',
                              instance.state->forwards.count(front, outcome));

    report.declare("forward_latency_seconds", "histogram",
                   "From a request's arrival to its answer, without the pause after an HTTP answer.");
    for (const auto& instance : all) {
        for (ForwardFront front : fronts) {
            const ForwardMetrics::Latency latency = instance.state->forwards.latency(front);
            const std::string frontLabel = std::string("front=\"") + forwardFrontName(front) + '"';
            std::uint64_t cumulative = 0;
            for (std::size_t i = 0; i < forwardLatencyBounds.size(); ++i) {
                cumulative += latency.buckets[i];
                std::ostringstream bound;
                bound << forwardLatencyBounds[i];
                report.sample("forward_latency_seconds_bucket", instance.service,
                              frontLabel + ",le=\"" + bound.str() + '"', cumulative);
            }
            cumulative += latency.overflow;
            report.sample("forward_latency_seconds_bucket", instance.service, frontLabel + ",le=\"+Inf\"",
                          cumulative);
            report.sample("forward_latency_seconds_sum", instance.service, frontLabel,
                          static_cast<double>(latency.sumMicroseconds) / 1e6);
            report.sample("forward_latency_seconds_count", instance.service, frontLabel, cumulative);
        }
    }
}

void describeLinks(Report& report, const std::vector<Instance>& all)
{
    using Figure = std::uint64_t (*)(const pilot_rpc::rpc_client&);
    struct Family {
        const char* name;
        const char* type;
        const char* help;
        Figure figure;
    };
    static const Family families[] = {
        {"link_connected", "gauge", "1 while the link's client is connected to the service.",
         [](const pilot_rpc::rpc_client& c) -> std::uint64_t { return c.has_connected() ? 1 : 0; }},
        {"link_reconnects_total", "counter", "Times the link came up again after its first connection.",
         [](const pilot_rpc::rpc_client& c) { return c.reconnect_count(); }},
        {"link_frames_sent_total", "counter", "Frames written to the service, heartbeats included.",
         [](const pilot_rpc::rpc_client& c) { return c.traffic().frames_sent; }},
        {"link_frames_received_total", "counter", "Frames read from the service.",
         [](const pilot_rpc::rpc_client& c) { return c.traffic().frames_received; }},
        {"link_bytes_sent_total", "counter", "Bytes written to the service, headers included.",
         [](const pilot_rpc::rpc_client& c) { return c.traffic().bytes_sent; }},
        {"link_bytes_received_total", "counter", "Bytes read from the service, headers included.",
         [](const pilot_rpc::rpc_client& c) { return c.traffic().bytes_received; }},
    };
    for (const auto& family : families) {
        report.declare(family.name, family.type, family.help);
        for (const auto& instance : all) {
            // A link that is not there (not started or stopped) reports zeros.
            report.sample(family.name, instance.service, "link=\"call\"",
                          instance.call ? family.figure(*instance.call) : 0);
            report.sample(family.name, instance.service, "link=\"subscription\"",
                          instance.subscription ? family.figure(*instance.subscription) : 0);
        }
    }
}

void describeDrops(Report& report, const std::vector<Instance>& all)
{
    report.declare("event_streams_open", "gauge", "Event streams being served.");
    for (const auto& instance : all)
        report.sample("event_streams_open", instance.service, "", instance.state->streamsOpen.load());
    report.declare("oversize_requests_refused_total", "counter",
                   "Requests refused because their frame would reach the link's limit.");
    for (const auto& instance : all)
        report.sample("oversize_requests_refused_total", instance.service, "",
                      instance.state->oversizeRequestsRefused.load());
    report.declare("error_echoes_trimmed_total", "counter",
                   "Error answers that left the request out because it was too big.");
    for (const auto& instance : all)
        report.sample("error_echoes_trimmed_total", instance.service, "", instance.state->errorEchoesTrimmed.load());
    report.declare("outbound_dropped_total", "counter", "Publications the outbound queues dropped, by class.");
    for (const auto& instance : all) {
        const OutboundDrops drops = instance.state->outboundDrops();
        report.sample("outbound_dropped_total", instance.service, "class=\"stale_telemetry\"",
                      drops.of(OutboundClass::staleTelemetry));
        report.sample("outbound_dropped_total", instance.service, "class=\"event\"", drops.of(OutboundClass::event));
        report.sample("outbound_dropped_total", instance.service, "class=\"answer\"",
                      drops.of(OutboundClass::answer));
    }
}

} // namespace

std::string describeMetrics()
{
    const std::vector<Instance> all = instances();
    Report report;
    describeForwards(report, all);
    describeLinks(report, all);
    describeDrops(report, all);
    return report.text();
}

} // namespace vlm

extern "C" VLM_EXPORT std::size_t PluginMetrics(char* buffer, std::size_t size)
{
    std::string text;
    try {
        text = vlm::describeMetrics();
    } catch (const std::exception&) {
        // Never throws into the host: an empty report says "nothing to add".
        text.clear();
    }
    return vlm::copyReport(text, buffer, size);
}
