// The HTTP API server answering a real HTTP client over loopback: routing,
// bodies and reply objects. Refusals: http_request_guard_test.cpp.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "host/HttpTestClient.h"
#include "VelmoraCommon.h"
#include "http/HttpApiServer.h"

namespace {

using vlm::test::get;
using vlm::test::HttpAnswer;
using vlm::test::post;

class HttpApiServerTest : public ::testing::Test {
protected:
    void SetUp() override { server.start(); }

    /// A request route answering {"body": <the body it got>, "route": name}.
    void registerNamed(const std::string& path, const std::string& name)
    {
        server.apiRegist(path, vlm::RequestApiHandler([name](auto&, auto&, const auto&, auto& reply,
                                                             const Poco::JSON::Object& body) {
                             reply.set("route", name);
                             reply.set("body", vlm::jsonToString(body));
                         }));
    }

    HttpAnswer send(const vlm::test::HttpCall& call) { return call.sendTo(server.port()); }

    vlm::HttpApiServer server;
};

TEST_F(HttpApiServerTest, RoutesExactPathsOnlyAndHandsOverTheBodyAsOneObject)
{
    registerNamed("/index/api/pilot/pushRoute", "pushRoute");
    registerNamed("/index/api/pilot/pushRouteX", "pushRouteX");

    EXPECT_EQ(send(post("/index/api/pilot/pushRoute?x=1", R"({"type":"request","message":{"a":1}})")).body,
              R"({"body":"{\"message\":{\"a\":1},\"type\":\"request\"}","route":"pushRoute"})");
    // A blank body reaches the handler as the empty object.
    EXPECT_EQ(send(post("/index/api/pilot/pushRouteX", " \r\n\t")).body, R"({"body":"{}","route":"pushRouteX"})");
    for (const char* path : {"/index/api/pilot/pushRoute/", "/index/api/pilot/push", "/index/api/pilot/"}) {
        const HttpAnswer answer = send(get(path));
        EXPECT_EQ(answer.status, 404) << path;
        EXPECT_EQ(answer.contentType, "application/json");
        EXPECT_EQ(answer.body, std::string(R"({"code":404,"msg":"no api at )") + path + "\"}");
    }
    // Registering again while serving replaces the handler.
    registerNamed("/index/api/pilot/pushRoute", "replaced");
    EXPECT_EQ(send(post("/index/api/pilot/pushRoute", "")).body, R"({"body":"{}","route":"replaced"})");
}

TEST_F(HttpApiServerTest, SendsTheReplyObjectOnlyWhenTheHandlerSentNothingItself)
{
    server.apiRegist("/own", vlm::RequestApiHandler([](auto&, auto& response, const auto&, auto& reply, const auto&) {
                         reply.set("ignored", true);
                         response.set("Connection", "keep-alive");
                         response.setContentType("application/json");
                         response.send() << "{\"answer\":\"from the handler\"}";
                     }));
    server.apiRegist("/index/api/pilot/updateProgress",
                     vlm::StreamApiHandler([](auto&, auto&, const auto&, auto& reply) { reply.set("code", 4001); }));

    const HttpAnswer own = send(post("/own", "{}"));
    EXPECT_EQ(own.body, "{\"answer\":\"from the handler\"}");
    // An answer of unknown length goes chunked, so the connection stays usable.
    EXPECT_TRUE(own.chunked);
    EXPECT_TRUE(own.keepAlive);
    // A stream handler that writes nothing answers with its reply object.
    const HttpAnswer stream = send(get("/index/api/pilot/updateProgress"));
    EXPECT_EQ(stream.status, 200);
    EXPECT_EQ(stream.contentType, "application/json");
    EXPECT_EQ(stream.body, "{\"code\":4001}");
}

} // namespace
