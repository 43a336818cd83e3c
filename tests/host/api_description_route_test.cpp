// "/host/openapi.json" on the assembled host: a real broker, a scripted micro
// service and the real plug-in. The description must list exactly what the
// server serves, mark the five streams, and pass a real OpenAPI 3 validator.

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <set>

#include <gtest/gtest.h>

#include "host/HostAppFixture.h"
#include "support/TempDir.h"

namespace {

using Poco::JSON::Object;

// Runs the node validator on a file; the exit code and what it printed. A
// machine without node fails here, clearly.
std::pair<int, std::string> validate(const std::string& documentPath)
{
    if (std::string(VELMORA_NODE).empty())
        return {-1, "node was not found when the build was configured; scripts/install-deps.sh installs it"};
    const std::string command = std::string("'") + VELMORA_NODE + "' '" + VELMORA_OPENAPI_VALIDATOR + "' '" +
                                documentPath + "' 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe)
        return {-1, "popen failed"};
    std::string output;
    std::array<char, 4096> chunk{};
    for (std::size_t got = 0; (got = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0;)
        output.append(chunk.data(), got);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

class ApiDescription : public vlm::test::HostAppFixture {};

TEST_F(ApiDescription, ListsExactlyTheServedEndpointsAndIsValidOpenApi3)
{
    startHost(R"(, "threads": 8)");
    ASSERT_EQ(app->startedPlugins(), 1u);
    const auto answer = send(vlm::test::get("/host/openapi.json"));
    ASSERT_EQ(answer.status, 200) << answer.body;
    auto document = answer.json();
    ASSERT_TRUE(document);
    const auto paths = document->getObject("paths");

    // Ask the server about every API the plug-in knows, served or not: a path
    // is described exactly when the server answers it.
    const std::string prefix = "/index/api/pilot/";
    std::vector<std::string> names;
    for (const auto& path : paths->getNames())
        if (path.rfind(prefix, 0) == 0)
            names.push_back(path.substr(prefix.size()));
    EXPECT_EQ(names.size(), 285u);
    const auto plugin = document->getArray("x-velmora-plugins")->getObject(0);
    const auto unserved = plugin->getArray("apisWithoutEndpoint");
    for (std::size_t i = 0; i < unserved->size(); ++i)
        names.push_back(unserved->getElement<std::string>(static_cast<unsigned>(i)));
    ASSERT_EQ(names.size(), 288u);
    for (const auto& name : names) {
        const int status = send(vlm::test::get(prefix + name)).status;
        EXPECT_EQ(status != 404, paths->has(prefix + name)) << name << " answered " << status;
    }
    for (const char* path : {"/host/health", "/host/bus", "/host/openapi.json", "/host/console"})
        EXPECT_TRUE(paths->has(path)) << path;

    std::set<std::string> streams;
    for (const auto& path : paths->getNames()) {
        const auto get = paths->getObject(path)->getObject("get");
        if (get && get->optValue<bool>("x-velmora-streaming", false))
            streams.insert(path.substr(prefix.size()));
    }
    EXPECT_EQ(streams, (std::set<std::string>{"pushTelemetry", "updateProgress", "softUpdateStatus",
                                              "getUpdateProgress", "updateMagneticCompassCali"}));

    vlm::test::TempDir dir;
    const auto valid = validate(dir.write("openapi.json", answer.body));
    EXPECT_EQ(valid.first, 0) << valid.second;
    // The validator can say no: a document without "info" is refused.
    document->remove("info");
    const auto refused = validate(dir.write("broken.json", vlm::jsonToString(*document)));
    EXPECT_EQ(refused.first, 1) << refused.second;
}

} // namespace
