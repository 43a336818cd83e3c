#pragma once

// Texts of the gateway's own vocabulary, in one place: topic pieces, bus
// addresses and the names that the fronts and the event dispatch treat
// specially. Spellings are the wire's and are kept as they are.
namespace vlm::texts {

// MQTT topic pieces.
inline constexpr const char* pilotTopicPrefix = "/velmora/pilot/";
inline constexpr const char* payloadTopicPrefix = "/velmora/payload/";
inline constexpr const char* commandTopicSuffix = "/cmd";
inline constexpr const char* telemetryTopicSuffix = "/pushTelemetry";
inline constexpr const char* edgeMasterTopicPrefix = "/velmora/sma/";
inline constexpr const char* edgeMasterTopicSuffix = "/edgeMaster/cmd";
inline constexpr const char* pilotOutTopicPrefix = "/msg/pilot/";
inline constexpr const char* pilotOutTopicSuffix = "/out";

// Every HTTP endpoint of the plug-in is this prefix followed by the API name.
inline constexpr const char* httpApiPathPrefix = "/index/api/pilot/";

// Receivers on the host bus.
inline constexpr const char* gimbalPluginGuid = "{71003D6A-4AA2-4C11-A8EA-A4971EDECEB8}";
inline constexpr const char* gimbalPeerPluginGuid = "{71003D6A-4BB2-4C11-A8EA-A4971EDECEB9}";
inline constexpr const char* recordPluginGuid = "{DCC1BA68-6C63-46EB-ADEF-7B05F95F2F30}";
inline constexpr const char* uploadPluginGuid = "{9A6A04EC-D218-4815-8E88-6DC545D492C8}";
inline constexpr const char* linkPluginGuid = "{681DBCD6-9F8D-4482-951A-B8A73E0E3865}";
inline constexpr const char* linkNoticeSenderGuid = "CDEB0338-FF61-4B9D-B93E-7E88565EBEA6";

// Event topics of the micro service with a meaning of their own here.
inline constexpr const char* uavData2MaterCtl = "uavData2MaterCtl";
inline constexpr const char* pilotConnectState = "pilotConnectState";
inline constexpr const char* setTelemFrequency = "setTelemFrequency";
inline constexpr const char* pushUavSn = "pushUavSn";
inline constexpr const char* pilotConnect = "pilotConnect";
inline constexpr const char* fireSearchInfo = "fireSearchInfo";
inline constexpr const char* heartBeat = "heartBeat";
inline constexpr const char* pushTelemetry = "pushTelemetry";
inline constexpr const char* uploadRouteMission = "uploadRouteMission";
inline constexpr const char* uploadGuid = "uploadGuid";
inline constexpr const char* fixedPointFollow = "fixedPointFollow";
inline constexpr const char* setCommLink = "setCommLink";
inline constexpr const char* switchLink = "switchLink";
inline constexpr const char* setCommTeleRate = "setCommTeleRate";
inline constexpr const char* mqttConnectStatusUpdate = "mqttConnectStatusUpdate";

// Micro-service procedures called by name.
inline constexpr const char* procGetIntConfig = "getIntConfig";
inline constexpr const char* procGetStringConfig = "getStringConfig";
inline constexpr const char* procGetBoolConfig = "getBoolConfig";
inline constexpr const char* procPilotControlBase = "pilotControlBase";
inline constexpr const char* procDjiControl = "djiControl";
inline constexpr const char* procMicroService = "microService";
inline constexpr const char* procFlightControl = "flightControl";
inline constexpr const char* procTelementry = "telementry";
inline constexpr const char* procReportRpcSub = "reportRPCSub";
inline constexpr const char* apiSetSelfGuid = "setSelfGuid";

// Text answers.
inline constexpr const char* vehicleNotConnected = "The vehicle not connected";
inline constexpr const char* apiNotExistPrefix = "current api not exist: ";

} // namespace vlm::texts
