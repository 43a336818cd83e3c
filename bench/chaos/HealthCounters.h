#pragma once

// The counters /host/health offers, read by name wherever they are, so the
// run works with whichever counters the host and the plug-in report today.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <Poco/JSON/Object.h>

namespace vlm::chaos {

/// Every number in a health report, by path ("bus.dropped",
/// "plugins[0].service.established").
using HealthNumbers = std::map<std::string, double>;

HealthNumbers healthNumbers(const Poco::JSON::Object::Ptr& report);

/// Growth of the counters that say an MQTT command or its answer was dropped
/// by a full queue: drop counters of the host's MQTT link ("mqtt.") and drop
/// counters of the plug-in whose name speaks of answers, commands, requests
/// or responses; telemetry, events and size refusals are not answers lost to
/// a queue. `used` gets the paths that counted.
std::uint64_t answerQueueDrops(const HealthNumbers& start, const HealthNumbers& end, std::vector<std::string>& used);

/// Growth of the counters of MQTT messages refused for their size (under
/// "mqtt." or the plug-in, names with "size", "large", "big" or "oversize");
/// -1 when health has no such counter. `used` gets the paths.
long long sizeRefusals(const HealthNumbers& start, const HealthNumbers& end, std::vector<std::string>& used);

/// Whether a path names a counter rather than a gauge or a setting (ports,
/// uptime, open connections): for the table of counters that moved.
bool isCounter(const std::string& path);

} // namespace vlm::chaos
