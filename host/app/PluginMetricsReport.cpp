#include "app/PluginMetricsReport.h"

#include <cmath>
#include <cstdlib>
#include <map>
#include <set>

#include "app/PluginLinkHealth.h"

namespace vlm::host {
namespace {

constexpr std::size_t helpLimit = 1024;

bool lowerName(std::string_view name)
{
    if (name.empty() || name.size() > pluginMetricsNameLimit)
        return false;
    if (!((name[0] >= 'a' && name[0] <= 'z') || name[0] == '_'))
        return false;
    for (char c : name) {
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_'))
            return false;
    }
    return true;
}

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::optional<double> parseNumber(std::string_view text)
{
    if (text == "+Inf")
        return HUGE_VAL;
    if (text == "-Inf")
        return -HUGE_VAL;
    if (text == "NaN")
        return std::nan("");
    if (text.empty() || text.size() > 64)
        return std::nullopt;
    // Only what a decimal number is made of: no "inf", "nan" or hex spellings.
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || c == '.' || c == '-' || c == '+' || c == 'e' || c == 'E'))
            return std::nullopt;
    }
    const std::string copy(text);
    char* end = nullptr;
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size())
        return std::nullopt;
    return value;
}

std::optional<MetricType> parseType(std::string_view text)
{
    if (text == "counter")
        return MetricType::counter;
    if (text == "gauge")
        return MetricType::gauge;
    if (text == "histogram")
        return MetricType::histogram;
    return std::nullopt;
}

// `{name="value",...}` starting at text[pos] == '{'; moves pos past the '}'.
std::optional<MetricLabels> parseLabels(std::string_view text, std::size_t& pos)
{
    MetricLabels labels;
    ++pos;
    if (pos < text.size() && text[pos] == '}') {
        ++pos;
        return labels;
    }
    for (;;) {
        const std::size_t equals = text.find('=', pos);
        if (equals == std::string_view::npos)
            return std::nullopt;
        const std::string name(text.substr(pos, equals - pos));
        // Names that begin with "__" are reserved for the scraper.
        if (!lowerName(name) || name.compare(0, 2, "__") == 0 || equals + 1 >= text.size() ||
            text[equals + 1] != '"')
            return std::nullopt;
        std::string value;
        pos = equals + 2;
        for (;;) {
            if (pos >= text.size())
                return std::nullopt;
            const char c = text[pos++];
            if (c == '"')
                break;
            if (c == '\\') {
                if (pos >= text.size())
                    return std::nullopt;
                const char e = text[pos++];
                if (e == 'n')
                    value += '\n';
                else if (e == '\\' || e == '"')
                    value += e;
                else
                    return std::nullopt;
            } else {
                value += c;
            }
            if (value.size() > pluginMetricsLabelValueLimit)
                return std::nullopt;
        }
        for (const auto& label : labels) {
            if (label.first == name)
                return std::nullopt;
        }
        labels.emplace_back(name, std::move(value));
        if (labels.size() > pluginMetricsLabelLimit || pos >= text.size())
            return std::nullopt;
        if (text[pos] == '}') {
            ++pos;
            return labels;
        }
        if (text[pos] != ',')
            return std::nullopt;
        ++pos;
    }
}

std::string seriesKey(const std::string& suffix, const MetricLabels& labels, bool withoutLe)
{
    std::string key = suffix;
    for (const auto& [name, value] : labels) {
        if (withoutLe && name == "le")
            continue;
        key += '\0' + name + '\0' + value;
    }
    return key;
}

class ReportParser {
public:
    PluginMetricsReport parse(std::string_view text)
    {
        std::size_t start = 0;
        while (start < text.size()) {
            std::size_t end = text.find('\n', start);
            if (end == std::string_view::npos)
                end = text.size();
            const std::string_view line = text.substr(start, end - start);
            start = end + 1;
            if (!line.empty() && !takeLine(line))
                ++report.rejectedLines;
        }
        for (auto& family : report.families) {
            if (const auto help = helps.find(family.name); help != helps.end())
                family.help = help->second;
            if (family.type == MetricType::histogram)
                dropBrokenHistograms(family);
        }
        return std::move(report);
    }

private:
    bool takeLine(std::string_view line)
    {
        if (line[0] == '#')
            return takeComment(line);
        return takeSample(line);
    }

    bool takeComment(std::string_view line)
    {
        const bool type = line.rfind("# TYPE ", 0) == 0;
        const bool help = line.rfind("# HELP ", 0) == 0;
        if (!type && !help)
            return true;  // another comment: ignored
        const std::string_view rest = line.substr(7);
        const std::size_t space = rest.find(' ');
        if (space == std::string_view::npos)
            return false;
        const std::string name(rest.substr(0, space));
        if (!lowerName(name))
            return false;
        const std::string_view value = rest.substr(space + 1);
        if (help) {
            if (value.size() > helpLimit || helps.count(name))
                return false;
            helps.emplace(name, std::string(value));
            return true;
        }
        const auto kind = parseType(value);
        if (!kind || byName.count(name) || (*kind == MetricType::counter && !endsWith(name, "_total")))
            return false;
        byName.emplace(name, report.families.size());
        report.families.push_back(PluginMetricFamily{name, *kind, "", {}});
        return true;
    }

    // The family a sample name belongs to and the suffix it carries.
    PluginMetricFamily* familyOf(const std::string& name, std::string& suffix)
    {
        if (const auto found = byName.find(name); found != byName.end()) {
            PluginMetricFamily& family = report.families[found->second];
            suffix.clear();
            return family.type == MetricType::histogram ? nullptr : &family;
        }
        for (const char* end : {"_bucket", "_sum", "_count"}) {
            if (!endsWith(name, end))
                continue;
            const auto found = byName.find(name.substr(0, name.size() - std::string_view(end).size()));
            if (found != byName.end() && report.families[found->second].type == MetricType::histogram) {
                suffix = end;
                return &report.families[found->second];
            }
        }
        return nullptr;
    }

    bool takeSample(std::string_view line)
    {
        if (samples >= pluginMetricsSampleLimit)
            return false;
        std::size_t pos = 0;
        while (pos < line.size() && line[pos] != '{' && line[pos] != ' ')
            ++pos;
        const std::string name(line.substr(0, pos));
        std::string suffix;
        PluginMetricFamily* family = lowerName(name) ? familyOf(name, suffix) : nullptr;
        if (!family)
            return false;
        MetricLabels labels;
        if (pos < line.size() && line[pos] == '{') {
            auto parsed = parseLabels(line, pos);
            if (!parsed)
                return false;
            labels = std::move(*parsed);
        }
        if (pos >= line.size() || line[pos] != ' ')
            return false;
        const auto value = parseNumber(line.substr(pos + 1));
        if (!value || !labelsFit(labels, suffix))
            return false;
        const bool countLike = family->type == MetricType::counter || suffix == "_bucket" || suffix == "_count";
        if (countLike && !(std::isfinite(*value) && *value >= 0))
            return false;
        if (!seen.insert(family->name + '\0' + seriesKey(suffix, labels, false)).second)
            return false;
        family->samples.push_back(PluginMetricSample{suffix, std::move(labels), *value});
        ++samples;
        return true;
    }

    static bool labelsFit(const MetricLabels& labels, const std::string& suffix)
    {
        bool hasLe = false;
        for (const auto& [name, value] : labels) {
            if (name == "plugin")
                return false;
            if (name == "le") {
                const auto bound = parseNumber(value);
                if (suffix != "_bucket" || !bound || std::isnan(*bound))
                    return false;
                hasLe = true;
            }
        }
        return hasLe == (suffix == "_bucket");
    }

    // A series whose buckets do not climb to a "+Inf" bucket equal to its
    // count, or that lacks its sum or count, would mislead: it goes whole.
    void dropBrokenHistograms(PluginMetricFamily& family)
    {
        struct Series {
            std::vector<double> bounds;
            std::vector<double> counts;
            std::optional<double> sum;
            std::optional<double> count;
        };
        std::map<std::string, Series> series;
        for (const auto& sample : family.samples) {
            Series& s = series[seriesKey("", sample.labels, true)];
            if (sample.suffix == "_bucket") {
                for (const auto& [name, value] : sample.labels) {
                    if (name == "le")
                        s.bounds.push_back(*parseNumber(value));
                }
                s.counts.push_back(sample.value);
            } else if (sample.suffix == "_sum") {
                s.sum = sample.value;
            } else {
                s.count = sample.value;
            }
        }
        std::set<std::string> broken;
        for (const auto& [key, s] : series) {
            bool ok = !s.bounds.empty() && std::isinf(s.bounds.back()) && s.bounds.back() > 0 && s.sum && s.count &&
                      *s.count == s.counts.back();
            for (std::size_t i = 1; ok && i < s.bounds.size(); ++i)
                ok = s.bounds[i] > s.bounds[i - 1] && s.counts[i] >= s.counts[i - 1];
            if (!ok)
                broken.insert(key);
        }
        if (broken.empty())
            return;
        std::vector<PluginMetricSample> kept;
        for (auto& sample : family.samples) {
            if (broken.count(seriesKey("", sample.labels, true)))
                ++report.rejectedLines;
            else
                kept.push_back(std::move(sample));
        }
        family.samples = std::move(kept);
    }

    PluginMetricsReport report;
    std::map<std::string, std::size_t> byName;
    std::map<std::string, std::string> helps;
    std::set<std::string> seen;
    std::size_t samples = 0;
};

} // namespace

PluginMetricsFunction findPluginMetrics(Poco::SharedLibrary& library)
{
    if (!library.hasSymbol(pluginMetricsSymbol))
        return nullptr;
    return reinterpret_cast<PluginMetricsFunction>(library.getSymbol(pluginMetricsSymbol));
}

std::optional<std::string> readPluginMetrics(PluginMetricsFunction function)
{
    // The same snprintf-like contract as the link report.
    return readPluginLinkHealth(function, pluginMetricsReportLimit);
}

PluginMetricsReport parsePluginMetrics(std::string_view text)
{
    return ReportParser().parse(text);
}

} // namespace vlm::host
