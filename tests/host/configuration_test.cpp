#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include <Poco/File.h>
#include <Poco/Exception.h>
#include <Poco/JSON/JSONException.h>
#include <Poco/JSON/Parser.h>

#include "VelmoraCommon.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using vlm::test::TempDir;

/// The names in the folder: a save leaves no temporary file beside the one it replaced.
std::vector<std::string> filesIn(const TempDir& dir)
{
    std::vector<std::string> names;
    Poco::File(dir.path).list(names);
    return names;
}

TEST(Configuration, SavingWritesTheWholeDocumentAndKeepsTheFilesModeAndOwner)
{
    TempDir dir;
    const std::string path = dir.write(
        "host.json", R"({"mqtt":{"server_uri":"127.0.0.1:1883","pawsswd":"tepid@brkr"},"http":{"port":8080}})");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    vlm::loadConfig(path);
    auto& config = vlm::configInstance();
    EXPECT_EQ(config.getString("mqtt.server_uri"), "127.0.0.1:1883");
    EXPECT_EQ(config.getInt("http.port"), 8080);
    config.setString("http.token", "s3cret");
    ASSERT_TRUE(vlm::saveConfig());

    // The file on disk is complete JSON with the new key and the old ones.
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    auto saved = Poco::JSON::Parser().parse(TempDir::read(path)).extract<Poco::JSON::Object::Ptr>();
    EXPECT_EQ(saved->getObject("http")->getValue<std::string>("token"), "s3cret");
    EXPECT_EQ(saved->getObject("http")->getValue<int>("port"), 8080);
    EXPECT_EQ(saved->getObject("mqtt")->getValue<std::string>("pawsswd"), "tepid@brkr");
    EXPECT_EQ(filesIn(dir), std::vector<std::string>{"host.json"});

    // Another mode is kept just the same, and so is another owner where the
    // saving process may set one (root, as a station's host often runs).
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    const bool mayChown = ::geteuid() == 0 && ::chown(path.c_str(), 65534, 65534) == 0;
    ASSERT_TRUE(vlm::saveConfig());
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    if (mayChown) {
        EXPECT_EQ(info.st_uid, 65534u);
        EXPECT_EQ(info.st_gid, 65534u);
    }
}

TEST(Configuration, AFailedSaveLeavesTheOldFileIntactAndSaysWhy)
{
    TempDir dir;
    const std::string original = R"({"a":1})";
    const std::string path = dir.write("host.json", original);
    vlm::loadConfig(path);
    vlm::configInstance().setString("bulk", std::string(4096, 'x'));

    // A file size limit makes the write fail half-way, as a full disk would;
    // it works for root too, unlike a read-only folder.
    struct rlimit before {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = before;
    small.rlim_cur = 1024;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    vlm::test::LogCapture log;
    const bool saved = vlm::saveConfig();
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, oldHandler);

    EXPECT_FALSE(saved);
    EXPECT_TRUE(log.contains("saveConfig failed"));
    EXPECT_TRUE(log.contains("File too large"));
    EXPECT_EQ(TempDir::read(path), original);
    EXPECT_EQ(filesIn(dir), std::vector<std::string>{"host.json"});
}

TEST(Configuration, SaveIntoAMissingDirectoryFailsAndKeepsNothingHalfWritten)
{
    TempDir dir;
    const std::string path = dir.write("host.json", R"({"a":1})");
    vlm::loadConfig(path);
    Poco::File(dir.path).remove(true);
    vlm::test::LogCapture log;
    EXPECT_FALSE(vlm::saveConfig());
    EXPECT_TRUE(log.contains("saveConfig failed"));
    EXPECT_FALSE(Poco::File(path).exists());
}

TEST(Configuration, ConcurrentSavesNeverTearTheFile)
{
    TempDir dir;
    const std::string path = dir.write("host.json", R"({"counter":0})");
    vlm::loadConfig(path);
    // A large document makes a torn write likely to be seen if saves were not atomic.
    for (int i = 0; i < 2000; ++i)
        vlm::configInstance().setString("bulk.key" + std::to_string(i), std::string(64, 'x'));
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t) {
        writers.emplace_back([] {
            for (int i = 0; i < 20; ++i)
                EXPECT_TRUE(vlm::saveConfig());
        });
    }
    Poco::JSON::Parser parser;
    for (int i = 0; i < 60; ++i) {
        // Every read sees a whole document, never a partial one.
        EXPECT_NO_THROW(parser.parse(TempDir::read(path))) << "read " << i;
        parser.reset();
    }
    for (auto& w : writers)
        w.join();
}

// A broken file is refused as what it is, a syntax error, and the file that
// was loaded before stays the one a later save writes to.
TEST(Configuration, AMalformedFileIsRefusedAsASyntaxErrorAndTheLoadedOneStays)
{
    TempDir dir;
    const std::string good = dir.write("good.json", R"({"a": 1})");
    const std::string bad = dir.write("bad.json", R"({"a": )");
    vlm::loadConfig(good);
    EXPECT_THROW(vlm::loadConfig(bad), Poco::JSON::JSONException);
    EXPECT_EQ(vlm::configPath(), good);
    EXPECT_THROW(vlm::loadConfig(dir.path + "/missing.json"), Poco::FileNotFoundException);
    EXPECT_EQ(vlm::configPath(), good);
}

TEST(JsonText, StringifiesObjectsCompactly)
{
    Poco::JSON::Object object(Poco::JSON_PRESERVE_KEY_ORDER);
    object.set("b", 1);
    object.set("a", "x");
    EXPECT_EQ(vlm::jsonToString(object), R"({"b":1,"a":"x"})");
    Poco::JSON::Object::Ptr none;
    EXPECT_EQ(vlm::jsonToString(none), "null");
}

} // namespace
