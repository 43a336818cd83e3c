#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/File.h>

#include "VelmoraCommon.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"
#include "uav/PilotControlCommon/PilotControlLog.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::TempDir;

// The host configuration lives in a file of its own for each test, so whether
// saveConfig ran shows in that file's content.
class HangarConfigTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        hostFile = dir.write("host.json",
                             R"({"station":{"comm_ip":"10.0.0.1","comm_port":2010},"vehicle":{"vehicle_type":"VT"}})");
        vlm::loadConfig(hostFile);
    }
    std::string hangar(const std::string& json) { return dir.write("hangarComConfig.json", json); }

    TempDir dir;
    std::string hostFile;
};

TEST_F(HangarConfigTest, ChangedMembersAreCopiedAndSaved)
{
    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.9","remotePort":"2011","uavType":"MR"})"));
    auto& config = vlm::configInstance();
    EXPECT_EQ(config.getString("station.comm_ip"), "10.0.0.9");
    EXPECT_EQ(config.getInt("station.comm_port"), 2011);
    EXPECT_EQ(config.getString("vehicle.vehicle_type"), "MR");
    const std::string saved = TempDir::read(hostFile);
    EXPECT_NE(saved.find("10.0.0.9"), std::string::npos) << saved;
    EXPECT_NE(saved.find("2011"), std::string::npos) << saved;
}

TEST_F(HangarConfigTest, IdenticalFileSavesNothing)
{
    const std::string before = TempDir::read(hostFile);
    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.1","remotePort":"2010","uavType":"VT"})"));
    EXPECT_EQ(TempDir::read(hostFile), before);
}

TEST_F(HangarConfigTest, MissingAndEmptyMembersAreLoggedAndTheRestStillRuns)
{
    LogCapture log;
    vlm::loadHangarConfig(hangar(R"({"remotePort":"","uavType":"NEW"})"));
    EXPECT_EQ(log.errors("not exist remoteIp"), 1);
    EXPECT_EQ(log.errors("remotePort is empty!"), 1);
    EXPECT_EQ(vlm::configInstance().getString("vehicle.vehicle_type"), "NEW");

    log.clear();
    vlm::loadHangarConfig(hangar(R"({"remoteIp":""})"));
    EXPECT_EQ(log.errors("remoteIp is empty"), 1);
    EXPECT_EQ(log.errors("not exist remotePort"), 1);
    EXPECT_EQ(log.errors("not exist uavType"), 1);

    log.clear();
    vlm::loadHangarConfig(hangar(R"({"uavType":""})"));
    EXPECT_EQ(log.errors("uavType is empty"), 1);
}

TEST_F(HangarConfigTest, BadPortTextAndBadFilesAreLoggedNotThrown)
{
    LogCapture log;
    vlm::loadHangarConfig(hangar(R"({"remoteIp":"10.0.0.1","remotePort":"abc"})"));
    EXPECT_EQ(log.errors("invalid stoi argument"), 1);
    vlm::loadHangarConfig(hangar(R"({"remotePort":"99999999999"})"));
    EXPECT_EQ(log.errors("stoi argument out of range"), 1);

    const size_t before = log.lines().size();
    vlm::loadHangarConfig(hangar(R"({"remoteIp": )"));
    ASSERT_EQ(log.lines().size(), before + 1);
    EXPECT_EQ(log.lines().back().priority, Poco::Message::PRIO_ERROR);

    const std::string missing = dir.file("absent.json");
    vlm::loadHangarConfig(missing);
    EXPECT_EQ(log.errors("Source file does not exist: " + missing), 1);
}

// The host answers an action with the lines its routine logged: exactly the
// lines of that call, on that thread.
TEST_F(HangarConfigTest, ErrorCaptureKeepsTheLinesOfItsOwnThreadAndCall)
{
    const std::string missing = dir.file("absent.json");
    vlm::pclog::ErrorCapture outer;
    std::thread other([&] { vlm::loadHangarConfig(dir.file("other.json")); });
    other.join();
    {
        vlm::pclog::ErrorCapture inner;
        vlm::loadHangarConfig(hangar(R"({"remotePort":"","uavType":"VT"})"));
        EXPECT_EQ(inner.lines(), (std::vector<std::string>{"not exist remoteIp", "remotePort is empty!"}));
    }
    vlm::loadHangarConfig(missing);
    EXPECT_EQ(outer.lines(), std::vector<std::string>{"Source file does not exist: " + missing});
}

} // namespace
