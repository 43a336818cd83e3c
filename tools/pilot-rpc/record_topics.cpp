#include "record_topics.h"

namespace pilot_rpc_tool {

const std::vector<std::string>& record_topics()
{
    static const std::vector<std::string> topics{
        "heartBeat",        "pushTelemetry",      "updateProgress",   "getVersionInfo",
        "getRunInfo",       "getBinInfo",         "softUpload",       "softUpdateStatus",
        "getUpdateProgress", "updateMagneticCompassCali", "uploadRouteMission", "pilotConnect",
        "pilotConnectState", "syncRoute",         "pushRoute",        "deleteWayPointList",
        "setTelemFrequency", "uploadGuid",        "saveRouteMission", "requestBomb",
        "requestManCtrl",   "uavData2MaterCtl",   "fireSearchInfo",   "pushUavSn",
        "fixedPointFollow", "responseToCloud",    "toMicroService",   "vehicleOnlineStatus",
    };
    return topics;
}

}  // namespace pilot_rpc_tool
