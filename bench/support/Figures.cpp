#include "Figures.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace vlm::bench {

double percentile(std::vector<double> samples, double p)
{
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    const auto index = std::min(samples.size() - 1, static_cast<std::size_t>(p * static_cast<double>(samples.size())));
    return samples[index];
}

Spread spreadOf(const std::vector<double>& samples)
{
    return {percentile(samples, 0.50), percentile(samples, 0.99), samples.size()};
}

const char* verdict(bool met)
{
    return met ? "met" : "NOT met";
}

long long wallMicros()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

long long numberAfterKey(const std::string& text, const std::string& key)
{
    const std::string needle = "\"" + key + "\":";
    const auto at = text.find(needle);
    if (at == std::string::npos)
        return -1;
    const char* start = text.c_str() + at + needle.size();
    char* end = nullptr;
    const long long value = std::strtoll(start, &end, 10);
    return end == start ? -1 : value;
}

} // namespace vlm::bench
