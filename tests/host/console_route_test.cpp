// The station console's files on a real server with a bearer token: they load
// without it, everything else still needs it.

#include <fstream>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <Poco/DirectoryIterator.h>
#include <Poco/Net/HTTPRequest.h>

#include "app/console/ConsoleRoute.h"
#include "host/HttpTestClient.h"

namespace {

using vlm::test::get;

const char* const token = "console-secret";

std::string sourceFile(const std::string& name)
{
    std::ifstream in(std::string(VELMORA_CONSOLE_SOURCE_DIR) + "/" + name, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class ConsoleRouteTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vlm::HttpApiServerOptions options;
        options.bearerToken = token;
        server = std::make_unique<vlm::HttpApiServer>(options);
        server->start();
        vlm::host::installConsoleRoutes(*server);
        server->apiRegist("/host/health", vlm::StreamApiHandler([](auto&, auto&, const auto&, auto& reply) {
            reply.set("status", "ok");
        }));
    }

    vlm::test::HttpAnswer send(vlm::test::HttpCall call, bool withToken = false)
    {
        if (withToken)
            call.headers["Authorization"] = std::string("Bearer ") + token;
        return call.sendTo(server->port());
    }

    std::unique_ptr<vlm::HttpApiServer> server;
};

TEST_F(ConsoleRouteTest, ThePageAndEveryFileLoadWithoutTheTokenAsTheyAreOnDiskWithTheirMediaTypes)
{
    const auto page = send(get("/host/console"));
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

    std::set<std::string> served;
    for (const auto& asset : vlm::host::consoleAssets()) {
        const auto answer = send(get(std::string("/host/console/") + asset.name));
        ASSERT_EQ(answer.status, 200) << asset.name;
        EXPECT_EQ(answer.body, sourceFile(asset.name)) << asset.name;
        EXPECT_EQ(answer.contentType, vlm::host::consoleContentType(asset.name));
        served.insert(asset.name);
    }
    // Every file of the console's folder is built in.
    std::set<std::string> onDisk;
    for (Poco::DirectoryIterator it{std::string(VELMORA_CONSOLE_SOURCE_DIR)}, end; it != end; ++it)
        onDisk.insert(it.name());
    EXPECT_EQ(served, onDisk);
    EXPECT_EQ(send(get("/host/console/app.js")).contentType, "text/javascript; charset=utf-8");
    EXPECT_EQ(send(get("/host/console/style.css")).contentType, "text/css; charset=utf-8");
    EXPECT_EQ(vlm::host::consoleContentType("logo.svg"), "image/svg+xml");
    EXPECT_EQ(vlm::host::consoleContentType("README"), "application/octet-stream");
}

TEST_F(ConsoleRouteTest, HeadGivesTheLengthWithoutTheBodyAndOtherMethodsAre405)
{
    vlm::test::HttpCall head = get("/host/console/app.js");
    head.method = Poco::Net::HTTPRequest::HTTP_HEAD;
    const auto answer = send(head);
    EXPECT_EQ(answer.status, 200);
    EXPECT_TRUE(answer.body.empty());
    EXPECT_EQ(answer.headers.at("Content-Length"), std::to_string(sourceFile("app.js").size()));

    const auto posted = send(vlm::test::post("/host/console", "{}"));
    EXPECT_EQ(posted.status, 405);
    EXPECT_EQ(posted.headers.at("Allow"), "GET, HEAD");
}

TEST_F(ConsoleRouteTest, EverythingElseStillNeedsTheToken)
{
    EXPECT_EQ(send(get("/host/health")).status, 401);
    EXPECT_EQ(send(get("/host/health"), true).status, 200);
    // Paths the console does not have are not revealed without the token.
    EXPECT_EQ(send(get("/host/console/nothing.js")).status, 401);
    EXPECT_EQ(send(get("/host/console/nothing.js"), true).status, 404);
    EXPECT_EQ(send(get("/host/console%zz")).status, 401) << "a malformed URI is no way around the token";
    EXPECT_EQ(send(get("/host/console%zz"), true).status, 400);
}

} // namespace
