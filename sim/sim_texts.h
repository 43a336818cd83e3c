#pragma once

// The micro service's own vocabulary as the simulator speaks it: procedure
// names, event topics and the API names it gives a behaviour of their own.
// Spellings are the wire's ("telementry") and are kept.
namespace pilot_sim::texts {

// Procedures: settings, start handshake.
inline constexpr const char* procGetIntConfig = "getIntConfig";
inline constexpr const char* procGetStringConfig = "getStringConfig";
inline constexpr const char* procGetBoolConfig = "getBoolConfig";
inline constexpr const char* procReportRpcSub = "reportRPCSub";

// Procedures that carry forwarded requests.
inline constexpr const char* procTelementry = "telementry";
inline constexpr const char* procFlightControl = "flightControl";
inline constexpr const char* procFirmwareUpdate = "firmwareUpdate";
inline constexpr const char* procDataPlayback = "dataPlayback";
inline constexpr const char* procElectronicFence = "electronicFence";
inline constexpr const char* procProject = "project";
inline constexpr const char* procMultiRotor = "multiRotor";
inline constexpr const char* procPilotControlBase = "pilotControlBase";
inline constexpr const char* procDjiControl = "djiControl";
inline constexpr const char* procMicroService = "microService";

/// Every procedure whose arguments are (request JSON[, API name]).
inline constexpr const char* forwardingProcedures[] = {
    procTelementry, procFlightControl, procFirmwareUpdate, procDataPlayback, procElectronicFence,
    procProject,    procMultiRotor,    procPilotControlBase, procDjiControl,  procMicroService,
};

// Second arguments of "pilotControlBase" that are not API names.
inline constexpr const char* setSelfGuid = "setSelfGuid";
inline constexpr const char* publishToGround = "publishToGround";

// Event topics.
inline constexpr const char* pushTelemetry = "pushTelemetry";
inline constexpr const char* heartBeat = "heartBeat";
inline constexpr const char* updateProgress = "updateProgress";
inline constexpr const char* pilotConnect = "pilotConnect";
inline constexpr const char* pilotConnectState = "pilotConnectState";
inline constexpr const char* pushUavSn = "pushUavSn";
inline constexpr const char* setTelemFrequency = "setTelemFrequency";
inline constexpr const char* vehicleOnlineStatus = "vehicleOnlineStatus";
inline constexpr const char* uavData2MaterCtl = "uavData2MaterCtl";
inline constexpr const char* fireSearchInfo = "fireSearchInfo";
inline constexpr const char* toMicroService = "toMicroService";

// API names with a behaviour of their own (the route and report ones are
// also the topics of their result events).
inline constexpr const char* getConfig = "getConfig";
inline constexpr const char* getStationInfo = "getStationInfo";
inline constexpr const char* getUavId = "getUavId";
inline constexpr const char* setUavId = "setUavId";
inline constexpr const char* disconnectPilot = "disconnectPilot";
inline constexpr const char* takeoffAndLand = "takeoffAndLand";
inline constexpr const char* returnHome = "returnHome";
inline constexpr const char* executeFlightTask = "executeFlightTask";
inline constexpr const char* cancelFlightTask = "cancelFlightTask";
inline constexpr const char* abortFlightTask = "abortFlightTask";
inline constexpr const char* flightTaskPause = "flightTaskPause";
inline constexpr const char* flightTaskRecovery = "flightTaskRecovery";
inline constexpr const char* pushRoute = "pushRoute";
inline constexpr const char* syncRoute = "syncRoute";
inline constexpr const char* getSyncRouteResult = "getSyncRouteResult";
inline constexpr const char* deleteWayPointList = "deleteWayPointList";
inline constexpr const char* getRunInfo = "getRunInfo";
inline constexpr const char* getBinInfo = "getBinInfo";
inline constexpr const char* softUpload = "softUpload";

// Answer texts.
inline constexpr const char* unknownConfigKeyPrefix = "unknown configuration key: ";
inline constexpr const char* success = "success";

}  // namespace pilot_sim::texts
