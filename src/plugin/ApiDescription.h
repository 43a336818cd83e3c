#pragma once

// The plug-in's list of APIs as JSON text, for a host that describes the HTTP
// endpoints it serves. Apart from the five entry points, the library exports
// one more C function for it:
//
//     extern "C" const char* PluginApiCatalogue();
//
// It returns (text owned by the library, valid while it stays loaded):
//
//     {"apis": [{"name": "pushTelemetry", "number": 2, "category": "telementry",
//                "streaming": true, "needsVehicle": true,
//                "httpPath": "/index/api/pilot/pushTelemetry"}, ...]}
//
// one entry per catalogue API in ascending number; "category" is null for an
// API in no service category, "httpPath" null for one that gets no endpoint.
// Whether an endpoint is really registered depends on the station's settings
// at start, so a host should document the paths it actually serves.

#include <string>

namespace vlm {

/// The JSON text above. Pure; any thread.
std::string describeApis();

} // namespace vlm
