#include "mqtt/MqttTopicFilter.h"

#include <cstddef>

namespace vlm {

bool isValidMqttTopicFilter(const std::string& filter)
{
    if (filter.empty() || filter.find('\0') != std::string::npos)
        return false;
    for (std::size_t i = 0; i < filter.size(); ++i) {
        const char c = filter[i];
        if (c != '+' && c != '#')
            continue;
        const bool startsLevel = i == 0 || filter[i - 1] == '/';
        const bool endsLevel = i + 1 == filter.size() || filter[i + 1] == '/';
        if (!startsLevel || !endsLevel)
            return false;
        if (c == '#' && i + 1 != filter.size())
            return false;
    }
    return true;
}

bool isValidMqttTopicName(const std::string& topic)
{
    return !topic.empty() && topic.find_first_of(std::string("+#\0", 3)) == std::string::npos;
}

bool mqttTopicMatches(const std::string& filter, const std::string& topic)
{
    if (!topic.empty() && topic[0] == '$' && !filter.empty() && (filter[0] == '+' || filter[0] == '#'))
        return false;

    std::size_t f = 0;
    std::size_t t = 0;
    for (;;) {
        const std::size_t fEnd = filter.find('/', f);
        const std::size_t tEnd = topic.find('/', t);
        const std::string fLevel = filter.substr(f, fEnd == std::string::npos ? std::string::npos : fEnd - f);
        if (fLevel == "#")
            return true;
        if (t == std::string::npos) {
            // The topic ran out of levels: only "parent/#" still matches it.
            return filter.compare(f, std::string::npos, "#") == 0;
        }
        const std::string tLevel = topic.substr(t, tEnd == std::string::npos ? std::string::npos : tEnd - t);
        if (fLevel != "+" && fLevel != tLevel)
            return false;
        if (fEnd == std::string::npos)
            return tEnd == std::string::npos;
        f = fEnd + 1;
        t = tEnd == std::string::npos ? std::string::npos : tEnd + 1;
    }
}

} // namespace vlm
