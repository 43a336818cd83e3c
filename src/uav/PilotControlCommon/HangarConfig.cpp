#include <stdexcept>

#include <Poco/AutoPtr.h>
#include <Poco/File.h>
#include <Poco/Util/JSONConfiguration.h>

#include "ConfigKeys.h"
#include "PilotControlCommon.h"
#include "PilotControlLog.h"

namespace vlm {
namespace {

using HangarFile = Poco::Util::JSONConfiguration;

// std::stoi with the failure texts the station's tools have always logged.
int portFromText(const std::string& text)
{
    try {
        return std::stoi(text);
    } catch (const std::invalid_argument&) {
        throw std::invalid_argument("invalid stoi argument");
    } catch (const std::out_of_range&) {
        throw std::out_of_range("stoi argument out of range");
    }
}

// Each reader copies one member of the hangar file into the host configuration
// and says whether that changed anything.

bool readRemoteIp(const HangarFile& hangar)
{
    if (!hangar.has("remoteIp")) {
        PCC_LOG_ERROR("not exist remoteIp");
        return false;
    }
    const std::string value = hangar.getString("remoteIp");
    if (value.empty()) {
        PCC_LOG_ERROR("remoteIp is empty");
        return false;
    }
    auto& config = configInstance();
    if (config.getString(cfg::stationCommIp, "") == value)
        return false;
    config.setString(cfg::stationCommIp, value);
    return true;
}

bool readRemotePort(const HangarFile& hangar)
{
    if (!hangar.has("remotePort")) {
        PCC_LOG_ERROR("not exist remotePort");
        return false;
    }
    const std::string value = hangar.getString("remotePort");
    if (value.empty()) {
        PCC_LOG_ERROR("remotePort is empty!");
        return false;
    }
    const int port = portFromText(value);
    auto& config = configInstance();
    if (config.has(cfg::stationCommPort) && config.getInt(cfg::stationCommPort) == port)
        return false;
    config.setInt(cfg::stationCommPort, port);
    return true;
}

bool readUavType(const HangarFile& hangar)
{
    if (!hangar.has("uavType")) {
        PCC_LOG_ERROR("not exist uavType");
        return false;
    }
    const std::string value = hangar.getString("uavType");
    if (value.empty()) {
        PCC_LOG_ERROR("uavType is empty");
        return false;
    }
    auto& config = configInstance();
    if (config.getString(cfg::vehicleVehicleType, "") == value)
        return false;
    config.setString(cfg::vehicleVehicleType, value);
    return true;
}

} // namespace

void loadHangarConfig()
{
    loadHangarConfig(hangarConfigFile);
}

void loadHangarConfig(const std::string& path)
{
    try {
        if (!Poco::File(path).exists()) {
            PCC_LOG_ERROR("Source file does not exist: %s", path.c_str());
            return;
        }
        Poco::AutoPtr<HangarFile> hangar(new HangarFile(path));
        // All three run whatever the others found.
        const bool ipChanged = readRemoteIp(*hangar);
        const bool portChanged = readRemotePort(*hangar);
        const bool typeChanged = readUavType(*hangar);
        if (ipChanged || portChanged || typeChanged)
            saveConfig();
    } catch (const Poco::Exception& e) {
        PCC_LOG_ERROR("%s", e.displayText().c_str());
    } catch (const std::exception& e) {
        PCC_LOG_ERROR("%s", e.what());
    }
}

} // namespace vlm
