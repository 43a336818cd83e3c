#include <unistd.h>

#include <gtest/gtest.h>

#include <Poco/File.h>

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "uav/PilotControlCommon/PilotControlCommon.h"

namespace {

using vlm::test::LogCapture;
using vlm::test::TempDir;

TEST(ConfigBackup, CopiesTheFileBesideItselfAndOverwritesAnOldBackup)
{
    TempDir dir;
    dir.write("velmora-host.json", R"({"v":2})");
    dir.write("velmora-host-backup.json", R"({"v":1})");
    vlm::backupConfigFile(dir.path, "velmora-host");
    EXPECT_EQ(TempDir::read(dir.file("velmora-host-backup.json")), R"({"v":2})");
}

TEST(ConfigBackup, MissingSourceIsLoggedAndCreatesNothing)
{
    TempDir dir;
    LogCapture log;
    vlm::backupConfigFile(dir.path, "absent");
    EXPECT_EQ(log.errors("Source file does not exist: " + dir.file("absent.json")), 1);
    EXPECT_FALSE(Poco::File(dir.file("absent-backup.json")).exists());
}

TEST(PingHost, LoopbackAnswers)
{
    // Raw ICMP sockets need privileges; without them the failure must at least
    // be logged with its reason.
    LogCapture log;
    const bool answered = vlm::pingHost("127.0.0.1");
    if (geteuid() == 0) {
        EXPECT_TRUE(answered);
    } else if (!answered) {
        EXPECT_TRUE(log.contains("ping failed: ")) << "a refused ping must say why";
    }
}

TEST(PingHost, AnIPv6AddressGetsNoIPv4Answer)
{
    EXPECT_FALSE(vlm::pingHost("::1"));
}

} // namespace
