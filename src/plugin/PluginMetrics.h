#pragma once

// The plug-in's metrics report for the host, exported as "PluginMetrics"
// (include/PluginMetrics.h states the calling contract and the line format).
// Families, each sample labelled service="<address>:<port>" of its instance:
//
//   forwarded_requests_total{front,outcome}     counter  requests by front and outcome
//   forward_latency_seconds{front}              histogram  in to answer, the 50 ms HTTP pause left out
//   link_connected{link}                        gauge    1 when the client is connected
//   link_reconnects_total{link}                 counter
//   link_frames_sent_total{link}, link_frames_received_total{link}
//   link_bytes_sent_total{link}, link_bytes_received_total{link}
//   event_streams_open                          gauge
//   oversize_requests_refused_total, error_echoes_trimmed_total
//   outbound_dropped_total{class}               counter  stale_telemetry, event, answer
//
// "link" is "call" or "subscription".

#include <string>

namespace vlm {

/// The report text of every live instance. Any thread.
std::string describeMetrics();

} // namespace vlm
