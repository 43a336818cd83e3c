#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <gtest/gtest.h>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/JSON/JSONException.h>
#include <Poco/JSON/Parser.h>

#include "VelmoraCommon.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using vlm::test::TempDir;

// The file holds the broker password and the HTTP token: a save keeps its
// mode and owner, and one that fails half-way leaves the old file whole.
TEST(Configuration, ASaveKeepsModeAndOwnerAndNeitherAFailedSaveNorABrokenFileLosesTheOldOne)
{
    TempDir dir;
    const std::string path = dir.write("host.json", R"({"mqtt":{"pawsswd":"tepid@brkr"},"http":{"port":8080}})");
    // Not the 0600 a new file gets, so a save that made a new file shows.
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    // Root, as a station's host often runs, may give the file to another owner.
    const bool mayChown = ::geteuid() == 0 && ::chown(path.c_str(), 65534, 65534) == 0;
    vlm::loadConfig(path);
    vlm::configInstance().setString("http.token", "s3cret");
    ASSERT_TRUE(vlm::saveConfig());
    const std::string saved = TempDir::read(path);
    const auto written = Poco::JSON::Parser().parse(saved).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(vlm::jsonToString(written), R"({"http":{"port":8080,"token":"s3cret"},"mqtt":{"pawsswd":"tepid@brkr"}})");
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    EXPECT_EQ(info.st_uid, mayChown ? 65534u : ::geteuid());

    // A file size limit makes the write fail half-way, as a full disk would;
    // it works for root too, unlike a read-only folder.
    vlm::configInstance().setString("bulk", std::string(4096, 'x'));
    struct rlimit before {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = before;
    small.rlim_cur = 1024;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    vlm::test::LogCapture log;
    const bool savedAgain = vlm::saveConfig();
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(savedAgain);
    EXPECT_TRUE(log.contains("saveConfig failed: ") && log.contains("File too large"));
    EXPECT_EQ(TempDir::read(path), saved);
    std::vector<std::string> names;
    Poco::File(dir.path).list(names);
    EXPECT_EQ(names, std::vector<std::string>{"host.json"});

    // A broken file is refused as what it is, a syntax error, and the file
    // loaded before stays the one a later save writes to.
    EXPECT_THROW(vlm::loadConfig(dir.write("bad.json", R"({"a": )")), Poco::JSON::JSONException);
    EXPECT_THROW(vlm::loadConfig(dir.path + "/missing.json"), Poco::FileNotFoundException);
    EXPECT_EQ(vlm::configPath(), path);
}

} // namespace
