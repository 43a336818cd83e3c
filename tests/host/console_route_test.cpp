// The station console on a real server with a bearer token: its files load
// without the token, as they are on disk and with the page's security
// headers; everything else still needs the token.

#include <fstream>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <Poco/DirectoryIterator.h>

#include "app/console/ConsoleRoute.h"
#include "host/HttpTestClient.h"

namespace {

using vlm::test::get;

std::string sourceFile(const std::string& name)
{
    std::ifstream in(std::string(VELMORA_CONSOLE_SOURCE_DIR) + "/" + name, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(ConsoleRoute, ServesThePageAndItsFilesWithoutTheTokenAndWithTheSecurityHeaders)
{
    vlm::HttpApiServerOptions options;
    options.bearerToken = "console-secret";
    vlm::HttpApiServer server(options);
    server.start();
    vlm::host::installConsoleRoutes(server);

    const auto page = get("/host/console").sendTo(server.port());
    ASSERT_EQ(page.status, 200) << page.body;
    EXPECT_EQ(page.contentType, "text/html; charset=utf-8");
    EXPECT_EQ(page.body, sourceFile("index.html"));
    EXPECT_EQ(page.headers.at("Cache-Control"), "no-cache");
    EXPECT_EQ(page.headers.at("Content-Security-Policy"), "default-src 'self'; frame-ancestors 'none'");
    EXPECT_EQ(page.headers.at("Referrer-Policy"), "no-referrer");
    EXPECT_EQ(page.headers.at("X-Content-Type-Options"), "nosniff");
    // Nothing the policy would block: no inline script or style, no data: URLs.
    for (const std::string blocked : {"<script>", "<style", "style=", "data:", "javascript:"})
        EXPECT_EQ(page.body.find(blocked), std::string::npos) << blocked;

    // Every file of the console's folder is built in and served as it is.
    std::set<std::string> onDisk;
    for (Poco::DirectoryIterator it{std::string(VELMORA_CONSOLE_SOURCE_DIR)}, end; it != end; ++it) {
        onDisk.insert(it.name());
        const auto answer = get("/host/console/" + it.name()).sendTo(server.port());
        EXPECT_EQ(answer.status, 200) << it.name();
        EXPECT_EQ(answer.body, sourceFile(it.name())) << it.name();
    }
    std::set<std::string> builtIn;
    for (const auto& asset : vlm::host::consoleAssets())
        builtIn.insert(asset.name);
    EXPECT_EQ(builtIn, onDisk);

    // Paths the console does not have are not revealed without the token,
    // and a malformed URI is no way around it.
    EXPECT_EQ(get("/host/console/nothing.js").sendTo(server.port()).status, 401);
    EXPECT_EQ(get("/host/console%zz").sendTo(server.port()).status, 401);
}

} // namespace
