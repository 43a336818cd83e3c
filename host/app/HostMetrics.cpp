// HostApp::metrics: the host's figures, and those its plug-ins report, as one
// Prometheus exposition for "/host/metrics". Every family is named
// "velmora_..."; a plug-in's families appear as "velmora_plugin_<name>".

#include "app/HostApp.h"

#include <map>

#include <Poco/Net/IPAddress.h>

#include "app/PluginMetricsReport.h"
#include "app/ProcessStats.h"
#include "app/PrometheusText.h"
#include "app/ServiceLink.h"

namespace vlm::host {
namespace {

using Type = MetricType;

// Plug-in family names the host keeps for its own figures about reports.
bool reservedPluginFamily(const std::string& name)
{
    return name.rfind("metrics_", 0) == 0;
}

void one(PrometheusText& out, const std::string& name, Type type, const std::string& help, double value,
         const MetricLabels& labels = {})
{
    out.add(out.family(name, type, help), labels, value);
}

void describeHttp(PrometheusText& out, const HttpApiServer& server, std::uint64_t busTapsRefused)
{
    const std::size_t requests =
        out.family("velmora_http_requests_total", Type::counter,
                   "Requests answered, by the class of route they reached and the answer's status (streams "
                   "when they end).");
    for (const auto& count : server.requestCounts())
        out.add(requests, {{"class", httpRouteClassName(count.routeClass)}, {"status", std::to_string(count.status)}},
                static_cast<double>(count.count));
    const HttpServerCounters load = server.counters();
    one(out, "velmora_http_connections", Type::gauge, "Connections holding a server thread now.", load.connections);
    one(out, "velmora_http_plugin_streams", Type::gauge, "Plug-in event streams open now.", load.openStreams);
    one(out, "velmora_http_plugin_requests_waiting", Type::gauge, "Plug-in requests being served now.",
        load.waitingRequests);
    const std::size_t refused = out.family("velmora_http_refused_total", Type::counter,
                                           "Requests refused with 503 because a cap was reached, by cap.");
    out.add(refused, {{"cap", "streams"}}, static_cast<double>(load.streamsRefused));
    out.add(refused, {{"cap", "streams_per_client"}}, static_cast<double>(load.streamsRefusedPerClient));
    out.add(refused, {{"cap", "requests"}}, static_cast<double>(load.requestsRefused));
    out.add(refused, {{"cap", "bus_taps"}}, static_cast<double>(busTapsRefused));
    one(out, "velmora_http_guard_refused_total", Type::counter,
        "Requests the Host/Origin guard refused with 403.", static_cast<double>(server.guardRefusals()));
    one(out, "velmora_http_slow_clients_cut_total", Type::counter,
        "Connections cut because their request was not received in time.", static_cast<double>(load.slowClientsCut));
}

void describeMqtt(PrometheusText& out, const PahoMqttClient* mqtt)
{
    one(out, "velmora_mqtt_connected", Type::gauge, "1 while the link to the broker is up.",
        mqtt && mqtt->isConnected() ? 1 : 0);
    const PahoMqttClient::Counters c = mqtt ? mqtt->counters() : PahoMqttClient::Counters{};
    one(out, "velmora_mqtt_publishes_total", Type::counter, "Publications handed to the MQTT library.",
        static_cast<double>(c.published));
    one(out, "velmora_mqtt_publish_failures_total", Type::counter,
        "Publications that failed: refused, link down, failed or not completed in time.",
        static_cast<double>(c.publishFailures));
    one(out, "velmora_mqtt_refused_messages_total", Type::counter,
        "Incoming messages refused as larger than the payload bound.", static_cast<double>(c.oversizeRefused));
    one(out, "velmora_mqtt_queue_dropped_total", Type::counter,
        "Incoming messages dropped because the delivery queue was full.", static_cast<double>(c.queueDrops));
    one(out, "velmora_mqtt_delivered_total", Type::counter, "Incoming messages whose handlers have all run.",
        static_cast<double>(c.delivered));
    one(out, "velmora_mqtt_queue_depth", Type::gauge, "Incoming messages waiting for a delivery thread.",
        static_cast<double>(c.queueDepth));
    one(out, "velmora_mqtt_queue_bytes", Type::gauge, "Bytes of the messages waiting for a delivery thread.",
        static_cast<double>(c.queueBytes));
    one(out, "velmora_mqtt_link_losses_total", Type::counter, "Times an established broker link was lost.",
        static_cast<double>(c.linkLosses));
}

void describeBus(PrometheusText& out, const MessageBus::Stats& s)
{
    const struct {
        const char* name;
        const char* help;
        std::uint64_t value;
    } counters[] = {
        {"velmora_bus_posted_total", "Messages the bus accepted.", s.posted},
        {"velmora_bus_delivered_total", "Deliveries made to plug-ins.", s.delivered},
        {"velmora_bus_unaddressed_total", "Messages that named no attached plug-in.", s.unaddressed},
        {"velmora_bus_rejected_total", "Texts that were not a JSON object.", s.rejected},
        {"velmora_bus_dropped_total", "Messages refused because the queue was full or the bus stopped.", s.dropped},
        {"velmora_bus_dropped_for_bytes_total", "Of the dropped: the queue's byte budget was full.",
         s.droppedForBytes},
        {"velmora_bus_oversize_total", "Messages refused as larger than the message bound.", s.oversize},
        {"velmora_bus_tap_dropped_total", "Messages bus tap readers missed because they fell behind.", s.tapDropped},
    };
    for (const auto& c : counters)
        one(out, c.name, Type::counter, c.help, static_cast<double>(c.value));
    one(out, "velmora_bus_queued", Type::gauge, "Messages waiting for the bus thread.", static_cast<double>(s.queued));
    one(out, "velmora_bus_queued_bytes", Type::gauge, "Bytes of the messages waiting for the bus thread.",
        static_cast<double>(s.queuedBytes));
    one(out, "velmora_bus_taps", Type::gauge, "Bus tap readers open.", static_cast<double>(s.taps));
}

void describeProcess(PrometheusText& out, double uptimeSeconds)
{
    one(out, "velmora_uptime_seconds", Type::gauge, "Seconds since the host started.", uptimeSeconds);
    const auto stats = readProcessStats();
    if (!stats)
        return;
    one(out, "velmora_process_resident_memory_bytes", Type::gauge, "Resident memory of the host process.",
        static_cast<double>(stats->residentBytes));
    one(out, "velmora_process_cpu_seconds_total", Type::counter, "User and system CPU time of the host process.",
        stats->cpuSeconds);
    one(out, "velmora_process_threads", Type::gauge, "Threads of the host process.",
        static_cast<double>(stats->threads));
    one(out, "velmora_process_open_fds", Type::gauge, "Open file descriptors of the host process.",
        static_cast<double>(stats->openDescriptors));
}

// The families of one plug-in's report, each sample labelled with the plug-in.
void addPluginReport(PrometheusText& out, const std::string& plugin, PluginMetricsReport report)
{
    for (auto& family : report.families) {
        const std::string name = "velmora_plugin_" + family.name;
        const auto declared = out.typeOf(name);
        if (reservedPluginFamily(family.name) || (declared && *declared != family.type)) {
            report.rejectedLines += family.samples.size();
            continue;
        }
        const std::size_t index =
            out.family(name, family.type, family.help.empty() ? "Reported by a plug-in." : family.help);
        for (auto& sample : family.samples) {
            MetricLabels labels{{"plugin", plugin}};
            labels.insert(labels.end(), sample.labels.begin(), sample.labels.end());
            out.add(index, labels, sample.value, sample.suffix);
        }
    }
    one(out, "velmora_plugin_metrics_rejected_lines", Type::gauge,
        "Lines of the plug-in's last metrics report the host dropped as malformed.",
        static_cast<double>(report.rejectedLines), {{"plugin", plugin}});
}

} // namespace

std::string HostApp::metrics() const
{
    std::vector<PluginRecord> recordsNow;
    std::size_t failuresNow = 0;
    {
        std::lock_guard<std::mutex> lock(statusMutex);
        recordsNow = records;
        failuresNow = failures.size();
    }
    PrometheusText out;
    if (server)
        describeHttp(out, *server, busRoute ? busRoute->refusedStreams() : 0);
    describeMqtt(out, mqtt.get());
    describeBus(out, messageBus->stats());

    const std::size_t states = out.family("velmora_plugins", Type::gauge, "Plug-ins by state.");
    std::map<std::string, int> byState{{"running", 0}, {"starting", 0}, {"stopped", 0}, {"failed", 0}};
    for (const auto& record : recordsNow)
        ++byState[record.state];
    for (const auto& [state, count] : byState)
        out.add(states, {{"state", state}}, count);
    one(out, "velmora_plugins_not_loaded", Type::gauge, "Plug-ins that could not be loaded or started.",
        static_cast<double>(failuresNow));

    const std::size_t link = out.family("velmora_service_link_up", Type::gauge,
                                        "1 while the host holds an established connection to the plug-in's "
                                        "service (-1 when the socket table cannot be read).");
    const std::size_t established = out.family("velmora_service_link_connections", Type::gauge,
                                               "Connections the host holds to the plug-in's service, by state.");
    for (const auto& record : recordsNow) {
        ServiceLinkState state;
        Poco::Net::IPAddress address;
        if (Poco::Net::IPAddress::tryParse(record.serviceAddress, address))
            state = observeServiceLink(address, record.servicePort);
        const MetricLabels labels{{"plugin", record.name},
                                  {"service", record.serviceAddress + ":" + std::to_string(record.servicePort)}};
        out.add(link, labels,
                state.link == ServiceLinkState::Link::unknown ? -1 : state.link == ServiceLinkState::Link::up);
        MetricLabels withState = labels;
        withState.emplace_back("state", "established");
        out.add(established, withState, state.established);
        withState.back().second = "connecting";
        out.add(established, withState, state.connecting);
    }
    for (const auto& record : recordsNow) {
        if (!record.metrics)
            continue;
        const auto text = readPluginMetrics(record.metrics);
        if (text)
            addPluginReport(out, record.name, parsePluginMetrics(*text));
        one(out, "velmora_plugin_metrics_report_too_large", Type::gauge,
            "1 when the plug-in's metrics report was above the host's bound and left out whole.", text ? 0 : 1,
            {{"plugin", record.name}});
    }
    describeProcess(out, std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt).count());
    return out.text();
}

} // namespace vlm::host
