#pragma once

#include <string>

namespace vlm {

/// "{D639B3D5-A951-4BC7-A629-91255EBF9638}": the plug-in's own GUID, 38 chars.
std::string pluginGuidString();
/// GUID part of the MQTT command topic when "station.app_type" is 0.
std::string topicGuidAppTypeZero();
/// GUID part of the MQTT command topic when "station.app_type" is not 0.
std::string topicGuidAppTypeOther();
/// "PilotNotification".
std::string notificationName();

/// Rewrites the host configuration with the plug-in's defaults: every top-level
/// key is removed, then the default table is written in order. Does not save.
void resetConfigDefaults();

/// The folder backupConfigFile() works in: <configHome>/fenlix/.
std::string configBackupDirectory();
/// The base name backupConfigFile() uses: the running executable's file name
/// without its extension.
std::string configBackupBaseName();

/// Copies <configHome>/fenlix/<executable>.json to <executable>-backup.json
/// beside it. Logs and returns when the source is missing or the copy fails.
void backupConfigFile();
/// Same, with the directory and the base name given (for tests and tools).
void backupConfigFile(const std::string& directory, const std::string& baseName);

/// The hangar description file loadHangarConfig() reads.
inline constexpr const char* hangarConfigFile = "/etc/hangarInfo/hangarComConfig.json";

/// Merges /etc/hangarInfo/hangarComConfig.json into the host configuration and
/// saves it when anything changed. Logs every failure; never throws.
void loadHangarConfig();
/// Same, reading the hangar description from `path`.
void loadHangarConfig(const std::string& path);

/// True when `ip` answers one ICMP echo request within 2 s. Never throws.
bool pingHost(const std::string& ip);

} // namespace vlm
