#pragma once

#include <string>

#include "VelmoraExport.h"

namespace vlm {

/// Whether `filter` is a well-formed subscription filter: not empty, "+" only as
/// a whole level, "#" only as the whole last level, no NUL character.
VLM_EXPORT bool isValidMqttTopicFilter(const std::string& filter);

/// Whether `topic` can be published to: not empty, no wildcard, no NUL.
VLM_EXPORT bool isValidMqttTopicName(const std::string& topic);

/// Whether a message published on `topic` is delivered to a subscription on
/// `filter`, by the broker's rules: "+" matches exactly one level (also an empty
/// one), "#" matches the parent level and everything below it, and topics that
/// begin with "$" are not matched by a filter that begins with a wildcard.
/// Both arguments must be valid; pure function, any thread.
VLM_EXPORT bool mqttTopicMatches(const std::string& filter, const std::string& topic);

} // namespace vlm
