#include "app/PrometheusText.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vlm::host {
namespace {

bool nameStart(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool nameRest(char c)
{
    return nameStart(c) || (c >= '0' && c <= '9');
}

// HELP text escapes only backslash and line feed.
std::string escapeHelp(const std::string& help)
{
    std::string out;
    out.reserve(help.size());
    for (char c : help) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

void writeLabels(std::string& out, const MetricLabels& labels)
{
    if (labels.empty())
        return;
    out += '{';
    bool first = true;
    for (const auto& [name, value] : labels) {
        if (!first)
            out += ',';
        first = false;
        out += name;
        out += "=\"";
        out += escapeLabelValue(value);
        out += '"';
    }
    out += '}';
}

} // namespace

const char* metricTypeName(MetricType type)
{
    switch (type) {
    case MetricType::counter:
        return "counter";
    case MetricType::gauge:
        return "gauge";
    case MetricType::histogram:
        return "histogram";
    }
    return "untyped";
}

bool validMetricName(const std::string& name)
{
    if (name.empty() || !(nameStart(name[0]) || name[0] == ':'))
        return false;
    for (char c : name) {
        if (!(nameRest(c) || c == ':'))
            return false;
    }
    return true;
}

bool validLabelName(const std::string& name)
{
    if (name.empty() || !nameStart(name[0]) || name.compare(0, 2, "__") == 0)
        return false;
    for (char c : name) {
        if (!nameRest(c))
            return false;
    }
    return true;
}

std::string formatMetricValue(double value)
{
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "+Inf" : "-Inf";
    char buffer[32];
    if (value == std::floor(value) && std::fabs(value) < 1e15) {
        std::snprintf(buffer, sizeof buffer, "%.0f", value);
        return buffer;
    }
    // The shortest of the usual precisions that reads back as the same value.
    for (int digits : {15, 17}) {
        std::snprintf(buffer, sizeof buffer, "%.*g", digits, value);
        if (std::strtod(buffer, nullptr) == value)
            break;
    }
    return buffer;
}

std::string escapeLabelValue(const std::string& value)
{
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::size_t PrometheusText::family(const std::string& name, MetricType type, const std::string& help)
{
    const auto found = byName.find(name);
    if (found != byName.end())
        return found->second;
    families.push_back(Family{name, type, help, {}});
    byName.emplace(name, families.size() - 1);
    return families.size() - 1;
}

std::optional<MetricType> PrometheusText::typeOf(const std::string& name) const
{
    const auto found = byName.find(name);
    if (found == byName.end())
        return std::nullopt;
    return families[found->second].type;
}

void PrometheusText::add(std::size_t index, const MetricLabels& labels, double value, const std::string& suffix)
{
    families.at(index).samples.push_back(Sample{suffix, labels, value});
}

void PrometheusText::addHistogram(std::size_t index, const MetricLabels& labels, const HistogramSnapshot& histogram)
{
    std::uint64_t cumulative = 0;
    for (std::size_t i = 0; i < histogram.bounds.size(); ++i) {
        cumulative += i < histogram.counts.size() ? histogram.counts[i] : 0;
        MetricLabels withBound = labels;
        withBound.emplace_back("le", formatMetricValue(histogram.bounds[i]));
        add(index, withBound, static_cast<double>(cumulative), "_bucket");
    }
    cumulative += histogram.overflow;
    MetricLabels infinite = labels;
    infinite.emplace_back("le", "+Inf");
    add(index, infinite, static_cast<double>(cumulative), "_bucket");
    add(index, labels, histogram.sum, "_sum");
    add(index, labels, static_cast<double>(cumulative), "_count");
}

std::string PrometheusText::text() const
{
    std::string out;
    for (const auto& family : families) {
        out += "# HELP " + family.name + ' ' + escapeHelp(family.help) + '\n';
        out += "# TYPE " + family.name + ' ' + metricTypeName(family.type) + '\n';
        for (const auto& sample : family.samples) {
            out += family.name;
            out += sample.suffix;
            writeLabels(out, sample.labels);
            out += ' ';
            out += formatMetricValue(sample.value);
            out += '\n';
        }
    }
    return out;
}

} // namespace vlm::host
