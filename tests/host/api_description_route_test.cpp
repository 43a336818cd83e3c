// "/host/openapi.json" on the assembled host: a real broker, a scripted micro
// service and the real plug-in. The description must match what the server
// really serves, mark the streams, and pass a real OpenAPI 3 validator.

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <memory>
#include <set>

#include <gtest/gtest.h>

#include "host/HostAppFixture.h"
#include "support/TempDir.h"

namespace {

using Poco::JSON::Object;

const char* const pluginPrefix = "/index/api/pilot/";

struct CommandResult {
    int exitCode = -1;
    std::string output;
};

// Runs a command with a shell and returns its exit code and what it printed.
CommandResult run(const std::string& command)
{
    CommandResult result;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return result;
    std::array<char, 4096> chunk{};
    std::size_t got = 0;
    while ((got = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0)
        result.output.append(chunk.data(), got);
    const int status = ::pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// The validator is a node script; a machine without node fails here, clearly.
CommandResult validate(const std::string& documentPath)
{
    const std::string node = VELMORA_NODE;
    if (node.empty())
        return {-1, "node was not found when the build was configured; scripts/install-deps.sh installs it"};
    return run("'" + node + "' '" + VELMORA_OPENAPI_VALIDATOR + "' '" + documentPath + "'");
}

class ApiDescriptionTest : public vlm::test::HostAppFixture {
protected:
    void start(const std::string& withToken = "")
    {
        token = withToken;
        startHost(R"(, "threads": 8)" + (token.empty() ? "" : R"(, "token": ")" + token + "\""));
        ASSERT_EQ(app->startedPlugins(), 1u);
    }

    Object::Ptr description()
    {
        const auto answer = send(vlm::test::get("/host/openapi.json"));
        EXPECT_EQ(answer.status, 200) << answer.body;
        EXPECT_EQ(answer.contentType, "application/json");
        text = answer.body;
        return answer.json();
    }

    std::string text;
};

TEST_F(ApiDescriptionTest, ListsExactlyTheEndpointsTheHostServesAndMarksTheFiveStreams)
{
    start();
    const auto document = description();
    ASSERT_TRUE(document);
    const auto paths = document->getObject("paths");

    std::set<std::string> pluginPaths;
    for (const auto& path : paths->getNames()) {
        if (path.rfind(pluginPrefix, 0) == 0)
            pluginPaths.insert(path);
    }
    EXPECT_EQ(pluginPaths.size(), 285u);

    // Ask the server about every API the plug-in knows, served or not: a path
    // is described exactly when the server answers it.
    const auto plugin = document->getArray("x-velmora-plugins")->getObject(0);
    EXPECT_EQ(plugin->getValue<std::string>("name"), "VelmoraPluginPilotControl");
    EXPECT_EQ(plugin->getValue<int>("apis"), 288);
    std::vector<std::string> names;
    for (const auto& path : pluginPaths)
        names.push_back(path.substr(std::string(pluginPrefix).size()));
    const auto unserved = plugin->getArray("apisWithoutEndpoint");
    for (std::size_t i = 0; i < unserved->size(); ++i)
        names.push_back(unserved->getElement<std::string>(static_cast<unsigned>(i)));
    ASSERT_EQ(names.size(), 288u);
    for (const auto& name : names) {
        const std::string path = pluginPrefix + name;
        const int status = send(vlm::test::get(path)).status;
        EXPECT_EQ(status != 404, pluginPaths.count(path) == 1) << path << " answered " << status;
    }
    for (const char* path : {"/host/health", "/host/bus", "/host/openapi.json", "/host/console"})
        EXPECT_TRUE(paths->has(path)) << path;
    EXPECT_EQ(send(vlm::test::get("/host/console")).status, 200);

    std::set<std::string> streams;
    for (const auto& path : paths->getNames()) {
        const auto get = paths->getObject(path)->getObject("get");
        if (!get || !get->has("x-velmora-streaming") || !get->getValue<bool>("x-velmora-streaming"))
            continue;
        streams.insert(path.substr(std::string(pluginPrefix).size()));
        EXPECT_TRUE(get->getObject("responses")->getObject("200")->getObject("content")->has("text/event-stream"));
    }
    EXPECT_EQ(streams, (std::set<std::string>{"pushTelemetry", "updateProgress", "softUpdateStatus",
                                              "getUpdateProgress", "updateMagneticCompassCali"}));
    const auto route = paths->getObject(std::string(pluginPrefix) + "pushRoute")->getObject("post");
    ASSERT_TRUE(route);
    EXPECT_EQ(route->getArray("tags")->getElement<std::string>(0), "flightControl");
    EXPECT_TRUE(route->getValue<bool>("x-velmora-needs-vehicle"));
}

TEST_F(ApiDescriptionTest, IsValidOpenApi3ForARealValidator)
{
    start();
    ASSERT_TRUE(description());
    vlm::test::TempDir dir;
    const auto valid = validate(dir.write("openapi.json", text));
    EXPECT_EQ(valid.exitCode, 0) << valid.output;

    // The validator can say no: a document without "info" is refused.
    auto broken = Poco::JSON::Parser().parse(text).extract<Object::Ptr>();
    broken->remove("info");
    const auto refused = validate(dir.write("broken.json", vlm::jsonToString(*broken)));
    EXPECT_EQ(refused.exitCode, 1) << refused.output;
}

TEST_F(ApiDescriptionTest, WithATokenTheDescriptionNeedsItAndSaysSo)
{
    start("doc-token");
    EXPECT_EQ(vlm::test::get("/host/openapi.json").sendTo(app->httpPort()).status, 401);
    const auto document = description();
    ASSERT_TRUE(document);
    EXPECT_TRUE(document->getArray("security")->getObject(0)->has("bearerToken"));
    EXPECT_TRUE(document->getObject("paths")->getObject("/host/health")->getObject("get")->getObject("responses")->has(
        "401"));
}

} // namespace
