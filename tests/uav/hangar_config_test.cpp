#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "VelmoraCommon.h"
#include "support/TempDir.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace {

using vlm::test::TempDir;

// The host configuration lives in a file of its own for each test, so whether
// saveConfig ran shows in that file's content.
class HangarConfigTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        hostFile = dir.write("host.json", R"({"station":{"comm_ip":"10.0.0.1","comm_port":2010}})");
        vlm::loadConfig(hostFile);
    }
    std::string hangar(const std::string& json) { return dir.write("hangarComConfig.json", json); }

    TempDir dir;
    std::string hostFile;
};

TEST_F(HangarConfigTest, ChangedOrMissingHostKeysAreCopiedAndSavedAndEqualOnesSaveNothing)
{
    // The host file has no vehicle_type: writing it counts as a change.
    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.1","remotePort":"2010","uavType":"VT"})"));
    const std::string saved = TempDir::read(hostFile);
    EXPECT_NE(saved.find("\"VT\""), std::string::npos) << saved;

    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.9","remotePort":"2011","uavType":"VT"})"));
    auto& config = vlm::configInstance();
    EXPECT_EQ(config.getString("station.comm_ip"), "10.0.0.9");
    EXPECT_EQ(config.getInt("station.comm_port"), 2011);
    const std::string changed = TempDir::read(hostFile);
    EXPECT_NE(changed.find("2011"), std::string::npos) << changed;

    dir.write("host.json", "not rewritten");
    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.9","remotePort":"2011","uavType":"VT"})"));
    EXPECT_EQ(TempDir::read(hostFile), "not rewritten");
}

// The host answers its load-hangar action with the error lines the reader
// logged on that thread during that call, so those lines are the contract.
TEST_F(HangarConfigTest, EachBadMemberOrFileIsReportedAndTheOtherMembersStillRun)
{
    const std::string missing = dir.file("absent.json");
    vlm::pclog::ErrorCapture outer;
    std::thread([&] { vlm::loadHangarConfig(missing); }).join();
    struct Case {
        const char* json;  // no file at all when null
        std::vector<std::string> errors;
    } const cases[] = {
        {R"({"remotePort":"","uavType":"NEW"})", {"not exist remoteIp", "remotePort is empty!"}},
        {R"({"remoteIp":"","uavType":""})", {"remoteIp is empty", "not exist remotePort", "uavType is empty"}},
        {R"({"remoteIp":"10.0.0.1","remotePort":"abc"})", {"invalid stoi argument"}},
        {R"({"remotePort":"99999999999"})", {"not exist remoteIp", "stoi argument out of range"}},
        {nullptr, {"Source file does not exist: " + missing}},
    };
    for (const auto& c : cases) {
        vlm::pclog::ErrorCapture inner;
        vlm::loadHangarConfig(c.json ? hangar(c.json) : missing);
        EXPECT_EQ(inner.lines(), c.errors) << (c.json ? c.json : "no file");
    }
    EXPECT_EQ(vlm::configInstance().getString("vehicle.vehicle_type"), "NEW");
    // Neither another thread's lines nor those an inner capture took.
    EXPECT_TRUE(outer.lines().empty());

    vlm::pclog::ErrorCapture malformed;
    vlm::loadHangarConfig(hangar(R"({"remoteIp": )"));
    EXPECT_EQ(malformed.lines().size(), 1u);
}

} // namespace
