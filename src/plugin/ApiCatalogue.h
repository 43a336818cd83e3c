#pragma once

#include <map>
#include <optional>
#include <string>

namespace vlm {

/// API name to API number; names are exact and case-sensitive. 288 entries.
using ApiCatalogue = std::map<std::string, int>;

/// Small integer to the name of a fixed micro-service function.
using ServiceFunctionTable = std::map<int, std::string>;

/// The one catalogue of the process, filled at library load, read-only after.
const ApiCatalogue& apiCatalogue();

/// The one service function table: 0 "responseToCloud", 1 "publishToGround",
/// 2 "toMicroService", 3 "setDatDirPath", 4 "setPhotoCount", 5 "setApmode".
const ServiceFunctionTable& serviceFunctionTable();

/// Name stored under `key` in the service function table. Throws
/// std::out_of_range "invalid map<K, T> key" for a missing key.
const std::string& serviceFunctionName(int key);

/// The number of an API, or nothing when the name is not in the catalogue.
std::optional<int> apiNumber(const std::string& name);

/// The micro-service procedure that serves an API number ("telementry",
/// "flightControl", ...), or nothing for a number outside every range.
std::optional<std::string> apiCategory(int number);

/// The streaming APIs: their endpoints answer with an event stream.
bool isStreamingApi(int number);

/// APIs that may be asked while no vehicle is connected (station side).
bool worksWithoutVehicle(int number);

namespace api {
// API numbers the fronts and the event dispatch treat specially.
constexpr int pushTelemetry = 2;
constexpr int pushRoute = 27;
constexpr int syncRoute = 28;
constexpr int getSyncRouteResult = 29;
constexpr int deleteWayPointList = 51;
constexpr int updateProgress = 53;
constexpr int getRunInfo = 104;
constexpr int getRunInfoResult = 105;
constexpr int getBinInfo = 106;
constexpr int getBinInfoResult = 107;
constexpr int softUpload = 109;
constexpr int getSoftUploadResult = 110;
constexpr int softUpdateStatus = 111;
constexpr int getUpdateProgress = 112;
constexpr int hangerImageTransSwitch = 135;
constexpr int updateMagneticCompassCali = 142;
/// Only catalogue entries below this number get an HTTP endpoint.
constexpr int httpRegistrationLimit = 307;
} // namespace api

} // namespace vlm
