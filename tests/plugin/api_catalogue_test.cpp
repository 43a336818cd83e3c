#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "ApiCatalogue.h"

namespace {

// The catalogue as it is published to integrators: per category, the names in
// ascending order from the first number of the range, one number each; a
// "(N; ...)" after a name gives its number after a gap.
struct PublishedRange {
    const char* category;
    int first;
    int last;
    const char* names;
};

const PublishedRange published[] = {
    {"telementry", 2, 24,
     "pushTelemetry, setGcsType, setLinkType, setLinkCtrParam, setTelemeConfigure, getBackupGnss, "
     "setPowerBatteryHeatModel, updateStationSetting, stationSetting, getSerialNames, pilotConnect, "
     "disconnectPilot, openTelemFile, heartBeat, getStationInfo, setConfig, getConfig, "
     "getSystemVerInfo, setLinkManufacturer, setCommTeleRate, setUavId, getUavId, payloadOnlineStatus"},
    {"flightControl", 27, 100,
     "pushRoute, syncRoute, getSyncRouteResult, executeFlightTask, cancelFlightTask, abortFlightTask, "
     "flightTaskPause, flightTaskRecovery, takeoffAndLand, returnHome, cancelReturnHome, trackTo, "
     "quickWaypoint, stopQuickWaypoint, updateQuickWaypoint, fixedPointFollow, sendLandPlan, "
     "sendUrgentLandPlan, sendVisualAlternateLandPoint, syncTargetInfo, update795Point, "
     "sendAutoPilotLoop, sendEmergencyLandingPoints, getEmergencyLandingPoints, deleteWayPointList, "
     "getTargetPoints, updateProgress, updateWayPoint, updateWayPoints, deleteSpecifyWaypoints, "
     "visualTrackSwitch, parachuteControl, switchControl, getTraverseVehicleId, sendThrowerSet, "
     "sendCuttingSet, sendInitINS, sendSwitchINS, setFlightControlNavigationSwitch, getMoveLandParam, "
     "setMoveLandParam, getMoveCapture, getLandPosComputerResult, edgeTaskSync, uploadRouteMission, "
     "getRouteCode, saveRouteMission, setHangerLandPoints, getHangerLandPoints, setHangarInfo, "
     "getHangarInfo, getHangarAvailableNum, setLandHangarId, getCanLandHangar, clearHangarInfo, "
     "removeHangarInfo, getHangarCheckCode, setLandHangarSnId, setSearchTime (86; 85 stays free), "
     "setBomb, setManualCtrl, setManualPosition, setUavNextStatus, setForestMissionSwitch, "
     "setVtSearchInfo, setVtTaskScenario, sendMasterCtlMsg2Uav, sendAirDataZero, sendAutoCheckCMD, "
     "getFlyCheckStatus, sendAutoCheckForcedThroughCMD, sendSurfacePreTest, sendSurfaceTest"},
    {"firmwareUpdate", 103, 113,
     "getVersionInfo, getRunInfo, getRunInfoResult, getBinInfo, getBinInfoResult, softUpdate, "
     "softUpload, getSoftUploadResult, softUpdateStatus, getUpdateProgress, getUpdateInfo"},
    {"dataPlayback", 116, 122,
     "resumeReplay, pauseReplay, getReplayFileSize, getFileStreamBytes, setFileStreamBytes, "
     "getReplayRate, setReplayRate"},
    {"electronicFence", 125, 132,
     "removeAllFence, removeFence, addModifyFence, fenceSwitch, getFenceParam, getAllFence, "
     "fenceCheck, enabledOneFence"},
    {"project", 138, 242,
     "getMagCaliDataVT, setMagCaliDataVT, startMagneticCompassCali, finishMagneticCompassCali, "
     "updateMagneticCompassCali, getMissionLimitVT, setMissionLimitVT, getControllerDataVT, "
     "setControllerDataVT, sendSaveConfig, rcCalibration, rcManualEnable, simulation, sendAPMode, "
     "setGcsRadioId, sendTaskControl, sendRCSwitchCMD, setOilScale, getOilScale, setWaypointMode, "
     "getWaypointMode, sendVisionCmd, sendMMWRCmd, getMMWRCmd, setDownVisualRadarDist, "
     "getDownVisualRadarDist, setRadarRecoveryHigh, setLdInspectSwitch, setVisInspectSwitch, "
     "sendADSBInputInfo, requestADSBStaticInfo, requestAltControlSourceData, sendAltControlSourceData, "
     "setRTKMode, sendAdioConfig, setNavtelBeidou, sendSensorsOrient, getSensorsOrient, "
     "getSurfaceTable, setSurfaceTable, resetRudderTable, sendInFlash, getInFlash, setAirbagData, "
     "getAirbagData, setGcsTurretWorkMode, setGcsTurretConfig, setGcsTurretControl, "
     "setGcsTurretTimeout, getCanAileronBattery, sendEnginePumpCMD (192; 188 to 191 stay free), "
     "sendLightSwitchCMD, sendUserPayloadData, sendControlDataDefault, sendFlyRecord, switchAirSensor, "
     "getRecvSendPacketCount, getLateralCtlParams, setLateralCtlParams, getVerticalCtlParams, "
     "setVerticalCtlParams, getBalanceCtlParams, setBalanceCtlParams, getLimitCtlParams, "
     "setLimitCtlParams, getAircraftCtlParams, setAircraftCtlParams, getRudderCtlParams, "
     "setRudderCtlParams, getLandCtlParams, setLandCtlParams, getLaunchCtlParams, setLaunchCtlParams, "
     "getStandardAirspeedCtlParams, setStandardAirspeedCtlParams, getPositionCtlParams, "
     "setPositionCtlParams, getAltCtlParams, setAltCtlParams, getAttitudeCtlParams, "
     "setAttitudeCtlParams, getNavigationCtlParams, setNavigationCtlParams, getSimpleCtlParams, "
     "setSimpleCtlParams, setBigEndian, requestRCPWMCal, setAircraftSdkControlEnabled, "
     "sendEngineKillCMD, getEngineSetup, setEngineOilTime, setAirPowerModelSwitch, "
     "setRemoteIdModuleStatus, getRemoteIdModuleStatus, setHeadingControl, sceneMatchingControl, "
     "updatePosArea, setGnssCmd, setAreaSearchTask, setManualAssistanceStatus, setTxWifiCmd"},
    {"multiRotor", 245, 305,
     "sendAbort, hoverNow, sendLandingStateSwitch, setPadControlEnabled, getPadControlEnabled, "
     "setPadControlCmd, sendLightCMD, sendMegaphoneOpen, sendMegaphoneVoiceSpeed, "
     "sendMegaphoneVoiceData, sendMegaphoneText, sendMegaphoneTest1, sendMegaphoneTest2, "
     "setRtkRawData, setMissionLeftTime, setCruiseMissionLeftNum, setPreCtrlMissionLeftNum, "
     "getCruiseMissionLeft, setCruiseMissionLeft, getMagCaliDataMR, setMagCaliDataMR, "
     "getMissionLimitMR, setMissionLimitMR, getControllerDataMR, setControllerDataMR, "
     "sendMultiRotorEngine, getMultiRotorEngine, setRemoteControl, setMegaphonePlayAudioByName, "
     "setMegaphoneStopPlay, setMegaphoneVolumeAdjust, getMegaphoneAudiolist, getMegaphoneVolumeStatus, "
     "getMegaphonePlayStatus, getMegaphonePlayFileStatus, getMegaphoneReplayStatus, "
     "setMegaphonePitchingAdjust, setLightFollowUpSwitch, setLightPitchingAdjust, "
     "setLightHeadingAdjust, getLightTemperatureStatus, getLightAngleStatus, getLightInfoStatus, "
     "setThrowerCtrl, getThrowerCtrlStatus, getThrowerLaserStatus, setMegaphoneOpenReplay, "
     "setMegaphoneCloseReplay, setMegaphoneBackPlay, setMegaphoneNextPlay, setMegaphonePausePlay, "
     "setMegaphoneContinuePlay, setLightLuminanceAdjust, setMegaphonePlaytxt, getLightControlMode, "
     "lightFrequencyAdjust, setMegaphoneFpvStatus, deleteMegaphoneFile, setInspectionConfigInfo, "
     "setInspectionWaypointInfo, getHLT"},
};

struct Expected {
    std::string name;
    int number;
    std::string category;
};

std::vector<Expected> expandPublishedLists()
{
    std::vector<Expected> all;
    for (const auto& range : published) {
        std::istringstream in(range.names);
        std::string token;
        int number = range.first;
        while (std::getline(in, token, ',')) {
            std::istringstream words(token);
            std::string name, gap;
            words >> name >> gap;
            if (!gap.empty())
                number = std::stoi(gap.substr(1));
            all.push_back({name, number, range.category});
            EXPECT_LE(number, range.last) << name;
            ++number;
        }
    }
    all.push_back({"hangerImageTransSwitch", 135, ""});
    all.push_back({"getDatDirPath", 308, ""});
    all.push_back({"getPhotoCount", 309, ""});
    all.push_back({"setJoystickConnectState", 310, ""});
    return all;
}

TEST(ApiCatalogue, HoldsEveryPublishedNameWithItsNumberAndCategory)
{
    const auto expected = expandPublishedLists();
    ASSERT_EQ(expected.size(), 288u);
    EXPECT_EQ(vlm::apiCatalogue().size(), 288u);
    for (const auto& e : expected) {
        const auto number = vlm::apiNumber(e.name);
        ASSERT_TRUE(number.has_value()) << e.name;
        EXPECT_EQ(*number, e.number) << e.name;
        const auto category = vlm::apiCategory(*number);
        EXPECT_EQ(category.value_or(""), e.category) << e.name;
    }
}

TEST(ApiCatalogue, FreeNumbersStayFreeAndHaveNoCategoryGaps)
{
    const std::set<int> freeNumbers = {0,   1,   25,  26,  85,  101, 102, 114, 115, 123, 124, 133,
                                       134, 136, 137, 188, 189, 190, 191, 243, 244, 306, 307};
    std::set<int> used;
    for (const auto& entry : vlm::apiCatalogue()) {
        EXPECT_TRUE(used.insert(entry.second).second) << "number used twice: " << entry.second;
        EXPECT_EQ(freeNumbers.count(entry.second), 0u) << entry.first;
    }
    for (int n = 0; n <= 310; ++n)
        EXPECT_EQ(used.count(n) + freeNumbers.count(n), 1u) << n;
    for (int n : {0, 1, 25, 26, 101, 102, 114, 115, 123, 124, 133, 134, 135, 136, 137, 243, 244, 306, 307, 308, 311})
        EXPECT_FALSE(vlm::apiCategory(n).has_value()) << n;
}

TEST(ApiCatalogue, LookupsAreExactAndCaseSensitive)
{
    EXPECT_FALSE(vlm::apiNumber("telemetry").has_value());
    EXPECT_FALSE(vlm::apiNumber("PushRoute").has_value());
    EXPECT_FALSE(vlm::apiNumber("pushRoute ").has_value());
    EXPECT_FALSE(vlm::apiNumber("").has_value());
}

TEST(ServiceFunctionTable, SixFixedNamesAndACheckedLookup)
{
    const auto& table = vlm::serviceFunctionTable();
    EXPECT_EQ(table.size(), 6u);
    EXPECT_EQ(vlm::serviceFunctionName(0), "responseToCloud");
    EXPECT_EQ(vlm::serviceFunctionName(1), "publishToGround");
    EXPECT_EQ(vlm::serviceFunctionName(2), "toMicroService");
    EXPECT_EQ(vlm::serviceFunctionName(3), "setDatDirPath");
    EXPECT_EQ(vlm::serviceFunctionName(4), "setPhotoCount");
    EXPECT_EQ(vlm::serviceFunctionName(5), "setApmode");
    try {
        vlm::serviceFunctionName(6);
        FAIL() << "key 6 must not exist";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid map<K, T> key");
    }
}

} // namespace
