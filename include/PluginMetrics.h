#pragma once

// Figures only a plug-in knows (what its fronts forwarded, its links' traffic,
// its open streams), for the host's "/host/metrics". A plug-in that wants its
// figures there exports, beside the five entry points, one optional C function:
//
//     extern "C" size_t PluginMetrics(char* buffer, size_t size);
//
// Calling contract (as snprintf):
// - It writes the report into `buffer`: at most `size - 1` bytes and a
//   terminating NUL (nothing when `size` is 0 or `buffer` is null), and returns
//   the length of the whole report without the NUL. A return value of `size`
//   or more means the text was cut; the host calls again with a buffer of at
//   least the returned length plus one.
// - Any thread, any number at once, while the library is loaded, also before
//   any instance exists and after all are gone. It reads a snapshot (counters
//   one by one), never blocks or delays the plug-in's work, never calls into
//   the host and never throws.
//
// The report is lines of the Prometheus text format, restricted:
//
//     # TYPE <name> counter|gauge|histogram
//     # HELP <name> <one line of text>                  (optional)
//     <name>{<label>="<value>",...} <number>
//     <name>_bucket{...,le="<bound>"} <number>           (histograms)
//     <name>_sum{...} <number>
//     <name>_count{...} <number>
//
// - A family is declared by its TYPE line before its first sample. Names are
//   [a-z_][a-z0-9_]*, at most pluginMetricsNameLimit bytes; a counter's name
//   ends in "_total". The host shows each family as "velmora_plugin_<name>"
//   and adds the label plugin="<PluginName()>" to every sample.
// - Label names are [a-z_][a-z0-9_]*, not "plugin", and "le" only on a
//   histogram's buckets; at most pluginMetricsLabelLimit per sample. Values
//   are in double quotes with \\, \" and \n escaped, at most
//   pluginMetricsLabelValueLimit bytes.
// - Numbers are decimal (as strtod reads them) or +Inf, -Inf, NaN; a counter
//   is finite and not negative. Each histogram series gives its buckets in
//   ascending "le" order, cumulative, the last with le="+Inf", then _sum and
//   _count (equal to the +Inf bucket).
// - Lines end in "\n"; empty lines are ignored; other "#" lines are comments.
//
// - Family names beginning with "metrics_" are the host's own (below).
//
// What the host does with it, at every scrape: it reads at most
// pluginMetricsReportLimit bytes (a longer report is left out whole, and
// velmora_plugin_metrics_report_too_large is 1), drops every line that breaks
// the rules above, a sample repeated with the same labels, the histogram
// series whose buckets do not add up, and a family whose type differs from a
// family of that name already shown, and gives the number of lines it dropped
// in the gauge velmora_plugin_metrics_rejected_lines. A report can never break
// the host's exposition.

#include <cstddef>

namespace vlm {

/// Name of the exported function.
inline constexpr const char* pluginMetricsSymbol = "PluginMetrics";

/// snprintf-like signature of the exported function.
using PluginMetricsFunction = std::size_t (*)(char* buffer, std::size_t size);

/// Bounds the host holds a report to.
inline constexpr std::size_t pluginMetricsReportLimit = 256 * 1024;
inline constexpr std::size_t pluginMetricsNameLimit = 100;
inline constexpr std::size_t pluginMetricsLabelLimit = 8;
inline constexpr std::size_t pluginMetricsLabelValueLimit = 256;
/// Samples the host takes from one report; the rest are dropped.
inline constexpr std::size_t pluginMetricsSampleLimit = 4096;

} // namespace vlm
