// The lookups every front routes by: API name to number, number to the
// micro-service procedure that serves it, and the fixed service functions.

#include <set>

#include <gtest/gtest.h>

#include "ApiCatalogue.h"

namespace {

// Numbers no API holds; 85 and 188 to 191 lie inside a category's range.
const std::set<int> freeNumbers = {0,   1,   25,  26,  85,  101, 102, 114, 115, 123, 124, 133,
                                   134, 136, 137, 188, 189, 190, 191, 243, 244, 306, 307};

struct Range {
    const char* category;
    int first;
    int last;
};
const Range ranges[] = {{"telementry", 2, 24},       {"flightControl", 27, 100}, {"firmwareUpdate", 103, 113},
                        {"dataPlayback", 116, 122},  {"electronicFence", 125, 132}, {"project", 138, 242},
                        {"multiRotor", 245, 305}};

TEST(ApiCatalogue, EveryNumberUpTo310IsUsedOnceOrFreeAndRangesGiveTheCategory)
{
    EXPECT_EQ(vlm::apiCatalogue().size(), 288u);
    std::set<int> used;
    for (const auto& [name, number] : vlm::apiCatalogue()) {
        EXPECT_TRUE(used.insert(number).second) << "number used twice: " << number;
        EXPECT_EQ(vlm::apiNumber(name), number) << name;
    }
    for (int n = 0; n <= 311; ++n) {
        EXPECT_EQ(used.count(n) + freeNumbers.count(n), n <= 310 ? 1u : 0u) << n;
        std::string category;
        for (const auto& r : ranges)
            category = n >= r.first && n <= r.last ? r.category : category;
        if (freeNumbers.count(n) && !category.empty())
            continue;  // a gap inside a range keeps the range's category
        EXPECT_EQ(vlm::apiCategory(n).value_or(""), category) << n;
    }
}

// The first and last name of each range and the names after a gap: a name
// lost or added inside a range shifts every number after it.
TEST(ApiCatalogue, RangeEdgesAndGapsHoldTheirNames)
{
    const std::pair<const char*, int> edges[] = {
        {"pushTelemetry", 2},        {"payloadOnlineStatus", 24}, {"pushRoute", 27},         {"setLandHangarSnId", 84},
        {"setSearchTime", 86},       {"sendSurfaceTest", 100},    {"getVersionInfo", 103},   {"getUpdateInfo", 113},
        {"resumeReplay", 116},       {"setReplayRate", 122},      {"removeAllFence", 125},   {"enabledOneFence", 132},
        {"hangerImageTransSwitch", 135}, {"getMagCaliDataVT", 138}, {"getCanAileronBattery", 187},
        {"sendEnginePumpCMD", 192},  {"setTxWifiCmd", 242},       {"sendAbort", 245},        {"getHLT", 305},
        {"getDatDirPath", 308},      {"getPhotoCount", 309},      {"setJoystickConnectState", 310}};
    for (const auto& [name, number] : edges)
        EXPECT_EQ(vlm::apiNumber(name), number) << name;
    for (const char* near : {"telemetry", "PushRoute", "pushRoute ", ""})
        EXPECT_FALSE(vlm::apiNumber(near).has_value()) << '"' << near << '"';
}

TEST(ServiceFunctionTable, SixFixedNamesAndACheckedLookup)
{
    const char* names[] = {"responseToCloud", "publishToGround", "toMicroService",
                           "setDatDirPath",   "setPhotoCount",   "setApmode"};
    EXPECT_EQ(vlm::serviceFunctionTable().size(), std::size(names));
    for (int key = 0; key < 6; ++key)
        EXPECT_EQ(vlm::serviceFunctionName(key), names[key]);
    try {
        vlm::serviceFunctionName(6);
        FAIL() << "key 6 must not exist";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "invalid map<K, T> key");
    }
}

} // namespace
