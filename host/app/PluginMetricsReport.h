#pragma once

// Reads a plug-in's metrics report (the "PluginMetrics" export; its format is
// stated in include/PluginMetrics.h). The report is untrusted input: every
// line that breaks the format is dropped and counted, and what is kept can be
// written into the host's exposition as it is.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <Poco/SharedLibrary.h>

#include "PluginMetrics.h"
#include "app/PrometheusText.h"

namespace vlm::host {

struct PluginMetricSample {
    std::string suffix;  // "", or "_bucket", "_sum", "_count" of a histogram
    MetricLabels labels;
    double value = 0;
};

struct PluginMetricFamily {
    std::string name;  // as the plug-in named it
    MetricType type = MetricType::gauge;
    std::string help;  // empty when the report gave none
    std::vector<PluginMetricSample> samples;
};

/// What was kept of a report, and how many lines were dropped.
struct PluginMetricsReport {
    std::vector<PluginMetricFamily> families;
    std::uint64_t rejectedLines = 0;
};

/// The library's function, or null when it does not export one.
PluginMetricsFunction findPluginMetrics(Poco::SharedLibrary& library);

/// The report text of `function`, or nothing when it is longer than the
/// report limit. Runs the plug-in's code on the caller's thread.
std::optional<std::string> readPluginMetrics(PluginMetricsFunction function);

/// Checks and parses a report. Pure; never throws on any input.
PluginMetricsReport parsePluginMetrics(std::string_view text);

} // namespace vlm::host
