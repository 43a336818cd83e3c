#pragma once

// A plug-in's own view of its links to its micro service, read through the
// optional exported C function "PluginLinkHealth" (see the plug-in's
// LinkHealth.h for its contract and its JSON report). Plug-ins without the
// function simply report nothing more.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <Poco/JSON/Object.h>
#include <Poco/SharedLibrary.h>

namespace vlm::host {

/// snprintf-like: writes the report into the buffer, returns its full length.
using PluginLinkHealthFunction = std::size_t (*)(char* buffer, std::size_t size);

/// Name of the exported function.
inline constexpr const char* pluginLinkHealthSymbol = "PluginLinkHealth";

/// The library's function, or null when it does not export one.
PluginLinkHealthFunction findPluginLinkHealth(Poco::SharedLibrary& library);

/// The report text `function` gives, or nothing when it is longer than
/// `limit`. Runs the plug-in's code on the caller's thread.
std::optional<std::string> readPluginLinkHealth(PluginLinkHealthFunction function, std::size_t limit = 1 << 20);

/// Adds to `service`, from the report's instance that serves `address`:`port`
/// (the first such), "last_frame_age_ms" and "reconnects" (each an object
/// with "call" and "subscription") and "counters" (the instance's counters as
/// reported). Leaves `service` as it is when no instance serves that address
/// or the report is not what the contract says. Pure.
void addPluginLinkHealth(Poco::JSON::Object& service, const std::string& report, const std::string& address,
                         std::uint16_t port);

} // namespace vlm::host
