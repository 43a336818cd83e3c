#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "VelmoraCommon.h"
#include "support/TempDir.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace {

using vlm::test::TempDir;

// The host configuration lives in a file of its own, so whether saveConfig
// ran shows in that file's content.
class HangarConfigTest : public ::testing::Test {
protected:
    void SetUp() override { vlm::loadConfig(dir.write("host.json", R"({"station":{"comm_ip":"10.0.0.1"}})")); }
    std::string hangar(const std::string& json) { return dir.write("hangarComConfig.json", json); }

    TempDir dir;
};

TEST_F(HangarConfigTest, ChangedOrMissingHostKeysAreCopiedAndSavedAndEqualOnesSaveNothing)
{
    // Only comm_ip is in the host file, and equal: the two missing keys count as changes.
    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.1","remotePort":"2011","uavType":"VT"})"));
    EXPECT_EQ(vlm::configInstance().getInt("station.comm_port"), 2011);
    const std::string saved = TempDir::read(dir.file("host.json"));
    EXPECT_TRUE(saved.find("2011") != std::string::npos && saved.find("\"VT\"") != std::string::npos) << saved;

    dir.write("host.json", "not rewritten");
    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.1","remotePort":"2011","uavType":"VT"})"));
    EXPECT_EQ(TempDir::read(dir.file("host.json")), "not rewritten");
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
        {R"({"remoteIp": )", {"JSON Exception: unexpected end of text"}},
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
}

} // namespace
