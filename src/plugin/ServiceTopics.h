#pragma once

// The micro service's event topics the plug-in subscribes to. Header-only and
// free of the plug-in's other parts: `pilot-rpc record` subscribes to exactly
// these, so a recording holds everything the plug-in would have received.

namespace vlm::serviceTopics {

/// Forwarding targets of the service function table (keys 0 and 2).
inline constexpr const char* responseToCloud = "responseToCloud";
inline constexpr const char* toMicroService = "toMicroService";

/// The link-type notice. Subscribed last, once the APIs are installed.
inline constexpr const char* vehicleOnlineStatus = "vehicleOnlineStatus";

/// Subscribed at start in this order, before the APIs are installed.
inline constexpr const char* beforeApis[] = {
    "heartBeat",        "pushTelemetry",     "updateProgress",   "getVersionInfo",
    "getRunInfo",       "getBinInfo",        "softUpload",       "softUpdateStatus",
    "getUpdateProgress", "updateMagneticCompassCali", "uploadRouteMission", "pilotConnect",
    "pilotConnectState", "syncRoute",        "pushRoute",        "deleteWayPointList",
    "setTelemFrequency", "uploadGuid",       "saveRouteMission", "requestBomb",
    "requestManCtrl",   "uavData2MaterCtl",  "fireSearchInfo",   "pushUavSn",
    "fixedPointFollow", responseToCloud,     toMicroService,
};

} // namespace vlm::serviceTopics
