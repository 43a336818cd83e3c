// The HTTP API server answering a real HTTP client over loopback: routing,
// parameters, bodies, errors, authentication and concurrent handlers.

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "host/HttpTestClient.h"
#include "VelmoraCommon.h"
#include "http/HttpApiServer.h"
#include "support/LogCapture.h"

namespace {

using vlm::ApiParams;
using vlm::test::get;
using vlm::test::HttpAnswer;
using vlm::test::post;
using Poco::JSON::Object;

const auto bound = std::chrono::seconds(10);

class HttpApiServerTest : public ::testing::Test {
protected:
    void start(vlm::HttpApiServerOptions options = {})
    {
        server = std::make_unique<vlm::HttpApiServer>(options);
        server->start();
    }

    /// A request route that answers {"route": name} through the reply object.
    void registerNamed(const std::string& path, const std::string& name)
    {
        server->apiRegist(path, vlm::RequestApiHandler([name](auto&, auto&, const auto&, auto& reply, const auto&) {
                              reply.set("route", name);
                          }));
    }

    /// A request route that counts its calls and keeps the last body it got.
    void registerCounting(const std::string& path)
    {
        server->apiRegist(path, vlm::RequestApiHandler([this](auto&, auto&, const auto&, auto&,
                                                              const Poco::JSON::Object& body) {
                              ++calls;
                              std::lock_guard<std::mutex> lock(bodyMutex);
                              lastBody = vlm::jsonToString(body);
                          }));
    }

    std::string lastBodySeen()
    {
        std::lock_guard<std::mutex> lock(bodyMutex);
        return lastBody;
    }

    std::uint16_t port() const { return server->port(); }

    std::unique_ptr<vlm::HttpApiServer> server;
    std::atomic<int> calls{0};
    std::mutex bodyMutex;  // guards lastBody
    std::string lastBody;
};

std::string routeOf(const HttpAnswer& answer)
{
    const auto json = answer.json();
    return json ? json->optValue<std::string>("route", "") : std::string("<not json: " + answer.body + ">");
}

void expectJsonError(const HttpAnswer& answer, int status)
{
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.contentType, "application/json");
    const auto json = answer.json();
    ASSERT_TRUE(json) << answer.body;
    EXPECT_EQ(json->getValue<int>("code"), status);
    EXPECT_FALSE(json->getValue<std::string>("msg").empty());
}

TEST_F(HttpApiServerTest, RoutesExactPathsOnlyAndAnswersUnknownOnesWith404Json)
{
    start();
    ASSERT_NE(port(), 0);
    registerNamed("/index/api/pilot/pushRoute", "pushRoute");
    registerNamed("/index/api/pilot/pushRouteX", "pushRouteX");

    EXPECT_EQ(routeOf(post("/index/api/pilot/pushRoute", "{}").sendTo(port())), "pushRoute");
    EXPECT_EQ(routeOf(post("/index/api/pilot/pushRouteX", "{}").sendTo(port())), "pushRouteX");
    EXPECT_EQ(routeOf(post("/index/api/pilot/pushRoute?x=1", "{}").sendTo(port())), "pushRoute");

    expectJsonError(get("/index/api/pilot/pushRoute/").sendTo(port()), 404);
    expectJsonError(get("/index/api/pilot/push").sendTo(port()), 404);
    expectJsonError(get("/index/api/pilot/").sendTo(port()), 404);

    // Registering again while serving replaces the handler.
    registerNamed("/index/api/pilot/pushRoute", "replaced");
    EXPECT_EQ(routeOf(post("/index/api/pilot/pushRoute", "{}").sendTo(port())), "replaced");
}

TEST_F(HttpApiServerTest, PassesDecodedQueryParameters)
{
    start();
    std::promise<ApiParams> seen;
    server->apiRegist("/q", vlm::RequestApiHandler([&](auto&, auto&, const auto& params, auto&, const auto&) {
                          seen.set_value(params);
                      }));
    EXPECT_EQ(post("/q?name=pilot%201&n=5&flag&sym=%2F%26", "").sendTo(port()).status, 200);
    auto future = seen.get_future();
    ASSERT_EQ(future.wait_for(bound), std::future_status::ready);
    const ApiParams params = future.get();
    EXPECT_EQ(params.size(), 4u);
    EXPECT_EQ(params.at("name"), "pilot 1");
    EXPECT_EQ(params.at("n"), "5");
    EXPECT_EQ(params.at("flag"), "");
    EXPECT_EQ(params.at("sym"), "/&");
}

TEST_F(HttpApiServerTest, RefusesBodiesThatAreNotOneJsonObjectAndTakesAnEmptyOneAsAnEmptyObject)
{
    start();
    registerCounting("/api");
    const std::string deep = std::string(500, '[') + std::string(500, ']');
    for (const std::string body : {"{\"type\":", "{bad}", "[1,2]", "42", "\"text\"", "null", "{} {}", deep.c_str()}) {
        SCOPED_TRACE(body.substr(0, 20));
        expectJsonError(post("/api", body).sendTo(port()), 400);
    }
    EXPECT_EQ(calls.load(), 0);

    EXPECT_EQ(post("/api", "{\"type\":\"request\",\"message\":{\"a\":1}}").sendTo(port()).status, 200);
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(lastBodySeen(), "{\"message\":{\"a\":1},\"type\":\"request\"}");

    // An empty or blank body reaches the handler as an empty object.
    EXPECT_EQ(post("/api", "").sendTo(port()).status, 200);
    EXPECT_EQ(lastBodySeen(), "{}");
    EXPECT_EQ(post("/api", " \r\n\t").sendTo(port()).status, 200);
    EXPECT_EQ(lastBodySeen(), "{}");
    auto chunked = post("/api", "");
    chunked.chunked = true;
    EXPECT_EQ(chunked.sendTo(port()).status, 200);
    EXPECT_EQ(calls.load(), 4);
}

TEST_F(HttpApiServerTest, AnswersBodiesOverTheLimitWith413ByLengthAndWhenChunked)
{
    vlm::HttpApiServerOptions options;
    options.maxBodyBytes = 64;
    start(options);
    registerCounting("/api");

    const std::string exact = "{\"k\":\"" + std::string(64 - 8, 'x') + "\"}";
    ASSERT_EQ(exact.size(), 64u);
    const std::string over = "{\"k\":\"" + std::string(64 - 7, 'x') + "\"}";

    expectJsonError(post("/api", over).sendTo(port()), 413);
    auto chunked = post("/api", std::string(4000, ' ') + "{}");
    chunked.chunked = true;
    expectJsonError(chunked.sendTo(port()), 413);
    EXPECT_EQ(calls.load(), 0);

    EXPECT_EQ(post("/api", exact).sendTo(port()).status, 200);
    auto chunkedExact = post("/api", exact);
    chunkedExact.chunked = true;
    EXPECT_EQ(chunkedExact.sendTo(port()).status, 200);
    EXPECT_EQ(calls.load(), 2);
}

TEST_F(HttpApiServerTest, AHandlerExceptionIsAnswered500AndLoggedAndTheServerGoesOn)
{
    vlm::test::LogCapture log;
    start();
    server->apiRegist("/throws", vlm::RequestApiHandler([](auto&, auto&, const auto&, auto&, const auto&) {
                          throw std::runtime_error("rpc client is null");
                      }));
    registerNamed("/fine", "fine");

    const HttpAnswer answer = post("/throws", "{}").sendTo(port());
    expectJsonError(answer, 500);
    EXPECT_NE(answer.body.find("rpc client is null"), std::string::npos);
    EXPECT_TRUE(log.contains("rpc client is null"));
    EXPECT_EQ(routeOf(post("/fine", "{}").sendTo(port())), "fine");
}

TEST_F(HttpApiServerTest, SendsTheReplyObjectOnlyWhenTheHandlerSentNothingItself)
{
    start();
    server->apiRegist("/own", vlm::RequestApiHandler([](auto&, auto& response, const auto&, auto& reply, const auto&) {
                          reply.set("ignored", true);
                          response.set("Connection", "keep-alive");
                          response.setContentType("application/json");
                          response.send() << "{\"answer\":\"from the handler\"}";
                      }));
    registerNamed("/reply", "reply");

    const HttpAnswer own = post("/own", "{}").sendTo(port());
    EXPECT_EQ(own.status, 200);
    EXPECT_EQ(own.body, "{\"answer\":\"from the handler\"}");
    // An answer of unknown length goes chunked, so the connection stays usable.
    EXPECT_TRUE(own.chunked);
    EXPECT_TRUE(own.keepAlive);

    const HttpAnswer reply = post("/reply", "{}").sendTo(port());
    EXPECT_EQ(reply.contentType, "application/json");
    EXPECT_EQ(reply.body, "{\"route\":\"reply\"}");
}

TEST_F(HttpApiServerTest, ABlockedHandlerDoesNotHoldOtherRequests)
{
    start();
    std::promise<void> entered;
    std::promise<void> release;
    auto released = release.get_future().share();
    server->apiRegist("/slow", vlm::RequestApiHandler([&, released](auto&, auto&, const auto&, auto& reply,
                                                                   const auto&) {
                          entered.set_value();
                          reply.set("waited", released.wait_for(bound) == std::future_status::ready);
                      }));
    registerNamed("/fast", "fast");

    auto slow = std::async(std::launch::async, [this] { return post("/slow", "{}").sendTo(port()); });
    ASSERT_EQ(entered.get_future().wait_for(bound), std::future_status::ready);
    EXPECT_EQ(routeOf(post("/fast", "{}").sendTo(port())), "fast");
    EXPECT_EQ(slow.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

    release.set_value();
    ASSERT_EQ(slow.wait_for(bound), std::future_status::ready);
    EXPECT_EQ(slow.get().body, "{\"waited\":true}");
}

TEST_F(HttpApiServerTest, ABearerTokenIsRequiredWhenConfigured)
{
    vlm::HttpApiServerOptions options;
    options.bearerToken = "s3cret";
    start(options);
    registerCounting("/api");

    const HttpAnswer none = post("/api", "{}").sendTo(port());
    expectJsonError(none, 401);
    EXPECT_EQ(none.headers.at("WWW-Authenticate"), "Bearer");

    auto wrong = post("/api", "{}");
    wrong.headers["Authorization"] = "Bearer s3cre";
    expectJsonError(wrong.sendTo(port()), 401);
    wrong.headers["Authorization"] = "Basic s3cret";
    expectJsonError(wrong.sendTo(port()), 401);
    // An unknown path is not revealed to a caller without the token.
    expectJsonError(get("/nowhere").sendTo(port()), 401);
    EXPECT_EQ(calls.load(), 0);

    auto right = post("/api", "{}");
    right.headers["Authorization"] = "Bearer s3cret";
    EXPECT_EQ(right.sendTo(port()).status, 200);
    EXPECT_EQ(calls.load(), 1);
}

} // namespace
