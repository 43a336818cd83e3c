#pragma once

// A small writer of the Prometheus text exposition format, version 0.0.4:
// families with their HELP and TYPE lines, samples with escaped label values,
// histograms with cumulative "le" buckets ending in "+Inf", "_sum" and
// "_count". Families are written in the order they were first asked for, each
// once, with all its samples together, whoever added them.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vlm::host {

/// Content type of the exposition.
inline constexpr const char* prometheusContentType = "text/plain; version=0.0.4; charset=utf-8";

/// Label names and values of one sample, in the order written.
using MetricLabels = std::vector<std::pair<std::string, std::string>>;

enum class MetricType { counter, gauge, histogram };

/// "counter", "gauge" or "histogram".
const char* metricTypeName(MetricType type);

/// Whether `name` is a valid metric name ([a-zA-Z_:][a-zA-Z0-9_:]*).
bool validMetricName(const std::string& name);

/// Whether `name` is a valid label name ([a-zA-Z_][a-zA-Z0-9_]*, not "__" first).
bool validLabelName(const std::string& name);

/// A histogram's state: upper bounds (ascending, finite) with the count of
/// observations at or below each and above the one before (not cumulative),
/// the count above the last bound, and the sum of all observations.
struct HistogramSnapshot {
    std::vector<double> bounds;
    std::vector<std::uint64_t> counts;  // one per bound
    std::uint64_t overflow = 0;         // above the last bound
    double sum = 0;
};

class PrometheusText {
public:
    /// Declares a family (first declaration wins for its type and help) and
    /// returns its index for add and addHistogram. The name must be valid.
    std::size_t family(const std::string& name, MetricType type, const std::string& help);

    /// The type a family was declared with, or nothing when it was not.
    std::optional<MetricType> typeOf(const std::string& name) const;

    /// One sample of family `index`; `suffix` is "" or, for histograms,
    /// "_bucket", "_sum" or "_count" as given by a source that already has them.
    void add(std::size_t index, const MetricLabels& labels, double value, const std::string& suffix = "");

    /// The buckets, "_sum" and "_count" of one histogram series.
    void addHistogram(std::size_t index, const MetricLabels& labels, const HistogramSnapshot& histogram);

    /// The exposition text, ending in a newline (empty when no family).
    std::string text() const;

private:
    struct Sample {
        std::string suffix;
        MetricLabels labels;
        double value;
    };
    struct Family {
        std::string name;
        MetricType type;
        std::string help;
        std::vector<Sample> samples;
    };
    std::vector<Family> families;
    std::map<std::string, std::size_t> byName;
};

/// A sample value as the format writes it: integers without a fraction,
/// "+Inf", "-Inf", "NaN", others with enough digits to read back exactly.
std::string formatMetricValue(double value);

/// A label value with backslash, double quote and line feed escaped.
std::string escapeLabelValue(const std::string& value);

} // namespace vlm::host
