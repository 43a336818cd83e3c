#include "HealthCounters.h"

#include <algorithm>
#include <cctype>

#include <Poco/JSON/Array.h>

namespace vlm::chaos {
namespace {

void collect(const Poco::Dynamic::Var& value, const std::string& path, HealthNumbers& out)
{
    if (value.type() == typeid(Poco::JSON::Object::Ptr)) {
        const auto object = value.extract<Poco::JSON::Object::Ptr>();
        for (const auto& [key, child] : *object)
            collect(child, path.empty() ? key : path + "." + key, out);
    } else if (value.type() == typeid(Poco::JSON::Array::Ptr)) {
        const auto array = value.extract<Poco::JSON::Array::Ptr>();
        for (unsigned i = 0; i < array->size(); ++i)
            collect(array->get(i), path + "[" + std::to_string(i) + "]", out);
    } else if (value.isNumeric() && !value.isBoolean()) {
        out[path] = value.convert<double>();
    }
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool contains(const std::string& text, std::initializer_list<const char*> parts)
{
    for (const char* part : parts) {
        if (text.find(part) != std::string::npos)
            return true;
    }
    return false;
}

bool isSizeCounter(const std::string& path)
{
    return contains(path, {"size", "large", "big", "oversize"});
}

double growth(const HealthNumbers& start, const HealthNumbers& end, const std::string& path)
{
    const auto before = start.find(path);
    const double was = before == start.end() ? 0 : before->second;
    return std::max(0.0, end.at(path) - was);
}

} // namespace

HealthNumbers healthNumbers(const Poco::JSON::Object::Ptr& report)
{
    HealthNumbers numbers;
    if (report)
        collect(Poco::Dynamic::Var(report), "", numbers);
    return numbers;
}

std::uint64_t answerQueueDrops(const HealthNumbers& start, const HealthNumbers& end, std::vector<std::string>& used)
{
    double drops = 0;
    for (const auto& [path, value] : end) {
        const std::string p = lower(path);
        if (!contains(p, {"drop"}) || isSizeCounter(p) || contains(p, {"telem", "event"}))
            continue;
        const bool mqttLink = p.rfind("mqtt.", 0) == 0;
        const bool pluginAnswers = p.rfind("plugins[", 0) == 0 && contains(p, {"answer", "command", "request", "response"});
        if (!mqttLink && !pluginAnswers)
            continue;
        used.push_back(path);
        drops += growth(start, end, path);
    }
    return static_cast<std::uint64_t>(drops);
}

long long sizeRefusals(const HealthNumbers& start, const HealthNumbers& end, std::vector<std::string>& used)
{
    bool found = false;
    double refusals = 0;
    for (const auto& [path, value] : end) {
        const std::string p = lower(path);
        if (!isSizeCounter(p) || (p.rfind("mqtt.", 0) != 0 && p.rfind("plugins[", 0) != 0))
            continue;
        // Limits are settings, not counters.
        if (contains(p, {"max_", "limit", "bytes_"}))
            continue;
        found = true;
        used.push_back(path);
        refusals += growth(start, end, path);
    }
    return found ? static_cast<long long>(refusals) : -1;
}

bool isCounter(const std::string& path)
{
    const std::string p = lower(path);
    return !contains(p, {"port", "uptime", "established", "connecting", "taps", "type", "max_", "limit", "capacity"});
}

} // namespace vlm::chaos
