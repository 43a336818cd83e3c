// The HTTP server's line against browsers: which Host and Origin it serves,
// CORS preflights, the methods each route takes, and the headers every
// answer carries. A real server and raw requests over loopback, so the test
// controls every byte of the head.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"
#include "http/HttpRequestGuard.h"

namespace {

using Poco::JSON::Object;

/// An answer read off a raw connection: status and header lines.
struct RawAnswer {
    int status = 0;
    std::string head;
    std::string body;

    bool hasHeader(const std::string& line) const { return head.find("\r\n" + line + "\r\n") != std::string::npos; }
};

/// Writes `head` (and `body`) on a fresh connection and reads until the
/// server closes it; every wait is bounded.
RawAnswer exchange(std::uint16_t port, const std::string& head, const std::string& body = "")
{
    Poco::Net::StreamSocket socket;
    socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(5, 0));
    socket.setReceiveTimeout(Poco::Timespan(5, 0));
    const std::string text = head + body;
    socket.sendBytes(text.data(), static_cast<int>(text.size()));
    std::string received;
    char buffer[4096];
    for (int reads = 0; reads < 1000; ++reads) {
        int n = 0;
        try {
            n = socket.receiveBytes(buffer, sizeof buffer);
        } catch (const Poco::Exception&) {
            break;
        }
        if (n <= 0)
            break;
        received.append(buffer, static_cast<std::size_t>(n));
    }
    RawAnswer answer;
    const auto end = received.find("\r\n\r\n");
    answer.head = received.substr(0, end == std::string::npos ? received.size() : end + 2);
    answer.body = end == std::string::npos ? "" : received.substr(end + 4);
    if (received.compare(0, 9, "HTTP/1.1 ") == 0 || received.compare(0, 9, "HTTP/1.0 ") == 0)
        answer.status = std::atoi(received.substr(9, 3).c_str());
    return answer;
}

/// A POST head with a JSON body of `body`'s length; `fields` are extra lines.
std::string postHead(const std::string& path, const std::vector<std::string>& fields, std::size_t bodyLength,
                     const std::string& version = "HTTP/1.1")
{
    std::string head = "POST " + path + " " + version + "\r\n";
    for (const auto& field : fields)
        head += field + "\r\n";
    head += "Content-Length: " + std::to_string(bodyLength) + "\r\nConnection: close\r\n\r\n";
    return head;
}

class HttpRequestGuardTest : public ::testing::Test {
protected:
    void start(vlm::HttpApiServerOptions options = {})
    {
        server = std::make_unique<vlm::HttpApiServer>(options);
        server->start();
        server->apiRegist("/cmd", vlm::RequestApiHandler([this](auto&, auto&, const auto&, auto& reply,
                                                                const Poco::JSON::Object& body) {
                              ++commands;
                              reply.set("type", body.optValue<std::string>("type", ""));
                          }));
        server->apiRegist("/stream", vlm::StreamApiHandler([this](auto&, auto& response, const auto&, auto&) {
                              ++streams;
                              response.set("Cache-Control", "no-cache");
                              response.setContentType("text/event-stream");
                              response.send() << "data: one\n\n";
                          }));
    }

    std::string self() const { return "127.0.0.1:" + std::to_string(server->port()); }

    /// POSTs {"type":"request"} to /cmd with these header lines.
    RawAnswer command(const std::vector<std::string>& fields, const std::string& version = "HTTP/1.1")
    {
        const std::string body = R"({"type":"request"})";
        return exchange(server->port(), postHead("/cmd", fields, body.size(), version), body);
    }

    std::unique_ptr<vlm::HttpApiServer> server;
    std::atomic<int> commands{0};
    std::atomic<int> streams{0};
};

TEST_F(HttpRequestGuardTest, ServesOnlyHostHeadersThatNameThisServer)
{
    start();
    const std::string port = std::to_string(server->port());
    const std::string other = std::to_string(server->port() == 65535 ? 1 : server->port() + 1);
    struct Case {
        std::string host;
        int status;
    };
    const std::vector<Case> cases = {
        {"127.0.0.1:" + port, 200}, {"localhost:" + port, 200}, {"LocalHost:" + port, 200}, {"localhost", 200},
        {"127.0.0.1", 200}, {"[::1]:" + port, 200}, {"[0:0:0:0:0:0:0:1]:" + port, 200},
        {"127.0.0.1.evil.example:" + port, 403}, {"localhost.evil:" + port, 403}, {"evil.example:" + port, 403},
        {"evil.example", 403}, {"user@localhost:" + port, 403}, {"localhost@evil.example:" + port, 403},
        {"localhost:" + other, 403}, {"127.0.0.1:" + other, 403}, {"localhost:0" + port, 403}, {"localhost:", 403},
        {"localhost:" + port + ":" + port, 403}, {"localhost:" + port + "0000", 403}, {"localhost:-1", 403},
        {"::1", 403}, {"[::1", 403}, {"[::1]x", 403}, {"[::1%lo]:" + port, 403}, {"[::2]:" + port, 403},
        {"127.1:" + port, 403}, {"0x7f.0.0.1:" + port, 403}, {"local host", 403}, {"localhost/x", 403}, {"", 403},
    };
    int served = 0;
    for (const auto& c : cases) {
        const RawAnswer answer = command({"Host: " + c.host});
        EXPECT_EQ(answer.status, c.status) << "Host: " << c.host << "\n" << answer.head;
        if (c.status == 200)
            ++served;
        else
            EXPECT_NE(answer.body.find("\"code\":403"), std::string::npos) << answer.body;
    }
    EXPECT_EQ(commands.load(), served);
    EXPECT_EQ(server->guardRefusals(), cases.size() - static_cast<std::size_t>(served));
}

TEST_F(HttpRequestGuardTest, AMissingOrDoubledHostIsRefusedExceptOnHttp10)
{
    start();
    EXPECT_EQ(command({}).status, 403);
    EXPECT_EQ(command({"Host: " + self(), "Host: evil.example"}).status, 403);
    EXPECT_EQ(command({"Host: evil.example", "Host: " + self()}).status, 403);
    EXPECT_EQ(commands.load(), 0);
    // An HTTP/1.0 tool without Host is no browser.
    EXPECT_EQ(command({}, "HTTP/1.0").status, 200);
    EXPECT_EQ(command({"Host: evil.example"}, "HTTP/1.0").status, 403);
    EXPECT_EQ(commands.load(), 1);
}

TEST_F(HttpRequestGuardTest, RefusesBrowserContextsOfOtherOrigins)
{
    vlm::HttpApiServerOptions options;
    options.allowedOrigins = {"http://127.0.0.1:5173", "HTTP://Tool.Example"};
    start(options);
    const std::string port = std::to_string(server->port());
    const std::string other = std::to_string(server->port() == 65535 ? 1 : server->port() + 1);
    struct Case {
        std::vector<std::string> fields;
        int status;
        std::string allowOrigin;  // expected Access-Control-Allow-Origin, "" for none
    };
    const std::string here = "http://127.0.0.1:" + port;
    const std::vector<Case> cases = {
        {{}, 200, ""},
        {{"Origin: " + here}, 200, ""},
        {{"Origin: http://localhost:" + port}, 200, "http://localhost:" + port},
        {{"Origin: http://[::1]:" + port}, 200, "http://[::1]:" + port},
        {{"Origin: http://127.0.0.1:5173"}, 200, "http://127.0.0.1:5173"},
        {{"Origin: http://tool.example"}, 200, "http://tool.example"},
        {{"Origin: http://127.0.0.1:5173", "Sec-Fetch-Site: cross-site"}, 200, "http://127.0.0.1:5173"},
        {{"Sec-Fetch-Site: same-origin"}, 200, ""}, {{"Sec-Fetch-Site: none"}, 200, ""},
        {{"Origin: http://127.0.0.1:" + other}, 403, ""}, {{"Origin: http://127.0.0.1"}, 403, ""},
        {{"Origin: https://127.0.0.1:" + port}, 403, ""}, {{"Origin: http://evil.example"}, 403, ""},
        {{"Origin: http://127.0.0.1.evil.example:" + port}, 403, ""},
        {{"Origin: http://user@127.0.0.1:" + port}, 403, ""},
        {{"Origin: " + here + "/"}, 403, ""}, {{"Origin: http://127.0.0.1:5174"}, 403, ""}, {{"Origin: null"}, 403, ""},
        {{"Origin: "}, 403, ""}, {{"Origin: " + here, "Origin: http://evil.example"}, 403, ""},
        {{"Sec-Fetch-Site: cross-site"}, 403, ""}, {{"Sec-Fetch-Site: same-site"}, 403, ""},
    };
    int served = 0;
    for (const auto& c : cases) {
        std::vector<std::string> fields{"Host: " + self()};
        fields.insert(fields.end(), c.fields.begin(), c.fields.end());
        const RawAnswer answer = command(fields);
        const std::string what = c.fields.empty() ? "(no browser headers)" : c.fields.front();
        EXPECT_EQ(answer.status, c.status) << what << "\n" << answer.head;
        if (c.allowOrigin.empty()) {
            EXPECT_EQ(answer.head.find("Access-Control-Allow-Origin"), std::string::npos) << what;
        } else {
            EXPECT_TRUE(answer.hasHeader("Access-Control-Allow-Origin: " + c.allowOrigin)) << what << answer.head;
            EXPECT_TRUE(answer.hasHeader("Vary: Origin")) << what;
        }
        served += c.status == 200 ? 1 : 0;
    }
    EXPECT_EQ(commands.load(), served);
}

TEST_F(HttpRequestGuardTest, ConfiguredHostsAndTheirOriginsAreServed)
{
    vlm::HttpApiServerOptions options;
    options.allowedHosts = {"Station.Local", "fe80::1"};
    start(options);
    const std::string port = std::to_string(server->port());
    EXPECT_EQ(command({"Host: station.local:" + port}).status, 200);
    EXPECT_EQ(command({"Host: [fe80::1]:" + port}).status, 200);
    EXPECT_EQ(command({"Host: station.local:" + port, "Origin: http://station.local:" + port}).status, 200);
    EXPECT_EQ(command({"Host: " + self(), "Origin: http://station.local:" + port}).status, 200);
    EXPECT_EQ(command({"Host: station.local.evil:" + port}).status, 403);
    EXPECT_EQ(command({"Host: station.local:" + port, "Origin: http://evil.local:" + port}).status, 403);
    EXPECT_EQ(commands.load(), 4);
}

TEST_F(HttpRequestGuardTest, AnswersPreflightsOnlyForAllowedOriginsAndBeforeTheToken)
{
    vlm::HttpApiServerOptions options;
    options.allowedOrigins = {"http://127.0.0.1:5173"};
    options.bearerToken = "s3cret";
    start(options);
    auto preflight = [this](const std::string& origin) {
        return exchange(server->port(), "OPTIONS /cmd HTTP/1.1\r\nHost: " + self() + "\r\nOrigin: " + origin +
                                            "\r\nAccess-Control-Request-Method: POST\r\n"
                                            "Access-Control-Request-Headers: content-type, authorization\r\n"
                                            "Connection: close\r\n\r\n");
    };
    const RawAnswer allowed = preflight("http://127.0.0.1:5173");
    EXPECT_EQ(allowed.status, 204) << allowed.head;
    for (const std::string line :
         {"Access-Control-Allow-Origin: http://127.0.0.1:5173", "Vary: Origin", "Access-Control-Allow-Methods: GET, POST",
          "Access-Control-Allow-Headers: Content-Type, Authorization", "Access-Control-Max-Age: 600"})
        EXPECT_TRUE(allowed.hasHeader(line)) << line << "\n" << allowed.head;

    const RawAnswer refused = preflight("http://evil.example");
    EXPECT_EQ(refused.status, 403);
    EXPECT_EQ(refused.head.find("Access-Control-Allow"), std::string::npos);

    // The guard answers before the token is asked for: nothing is learned.
    EXPECT_EQ(command({"Host: evil.example"}).status, 403);
    EXPECT_EQ(command({"Host: " + self(), "Origin: http://evil.example"}).status, 403);
    const RawAnswer real =
        command({"Host: " + self(), "Origin: http://127.0.0.1:5173", "Authorization: Bearer s3cret"});
    EXPECT_EQ(real.status, 200);
    EXPECT_TRUE(real.hasHeader("Access-Control-Allow-Origin: http://127.0.0.1:5173")) << real.head;
    EXPECT_EQ(command({"Host: " + self(), "Origin: http://127.0.0.1:5173"}).status, 401);
    EXPECT_EQ(commands.load(), 1);
}

TEST_F(HttpRequestGuardTest, RoutesTakeOnlyTheirMethodsAndSay405WithAllow)
{
    start();
    server->hostRouteRegist("/both", {"GET", "POST"},
                            vlm::StreamApiHandler([](auto& request, auto& response, const auto&, auto& reply) {
                                reply.set("method", request.getMethod());
                                (void)response;
                            }));
    struct Case {
        std::string method;
        std::string path;
        int status;
        std::string allow;
    };
    const std::vector<Case> cases = {
        {"GET", "/cmd", 405, "POST"},   {"PUT", "/cmd", 405, "POST"},      {"DELETE", "/cmd", 405, "POST"},
        {"HEAD", "/cmd", 405, "POST"},  {"OPTIONS", "/cmd", 405, "POST"},  {"POST", "/stream", 405, "GET"},
        {"PUT", "/both", 405, "GET, POST"}, {"GET", "/both", 200, ""},     {"POST", "/both", 200, ""},
        {"GET", "/stream", 200, ""},    {"POST", "/cmd", 200, ""},
    };
    for (const auto& c : cases) {
        vlm::test::HttpCall call;
        call.method = c.method;
        call.uri = c.path;
        if (c.method == "POST" || c.method == "PUT")
            call.body = "{}";
        const auto answer = call.sendTo(server->port());
        EXPECT_EQ(answer.status, c.status) << c.method << " " << c.path;
        if (c.allow.empty())
            continue;
        EXPECT_EQ(answer.headers.count("Allow") ? answer.headers.at("Allow") : "", c.allow);
        if (c.method != "HEAD") {
            EXPECT_NE(answer.body.find("\"code\":405"), std::string::npos) << answer.body;
        }
    }
    EXPECT_EQ(commands.load(), 1);
    EXPECT_EQ(streams.load(), 1);
}

TEST_F(HttpRequestGuardTest, ACurlFormPostWithoutBrowserHeadersIsStillServed)
{
    start();
    // What "curl -d '{...}'" sends: a form content type around a JSON body.
    const std::string body = R"({"type":"request","message":{}})";
    const RawAnswer answer = exchange(
        server->port(),
        postHead("/cmd", {"Host: " + self(), "User-Agent: curl/8", "Accept: */*",
                          "Content-Type: application/x-www-form-urlencoded"},
                 body.size()),
        body);
    EXPECT_EQ(answer.status, 200) << answer.head;
    EXPECT_NE(answer.body.find("\"type\":\"request\""), std::string::npos) << answer.body;
}

TEST_F(HttpRequestGuardTest, EveryAnswerSaysNosniffAndApiAnswersAreNotStored)
{
    start();
    const auto ok = vlm::test::post("/cmd", "{}").sendTo(server->port());
    const auto notFound = vlm::test::post("/nowhere", "{}").sendTo(server->port());
    const auto wrongMethod = vlm::test::get("/cmd").sendTo(server->port());
    vlm::test::HttpCall foreign = vlm::test::post("/cmd", "{}");
    foreign.headers["Origin"] = "http://evil.example";
    const auto refused = foreign.sendTo(server->port());
    for (const auto* answer : {&ok, &notFound, &wrongMethod, &refused}) {
        EXPECT_EQ(answer->headers.at("X-Content-Type-Options"), "nosniff") << answer->status;
        EXPECT_EQ(answer->headers.at("Cache-Control"), "no-store") << answer->status;
    }
    EXPECT_EQ(refused.status, 403);
    // A stream handler's own cache rule stands.
    const RawAnswer stream =
        exchange(server->port(), "GET /stream HTTP/1.1\r\nHost: " + self() + "\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(stream.status, 200);
    EXPECT_TRUE(stream.hasHeader("Cache-Control: no-cache")) << stream.head;
    EXPECT_TRUE(stream.hasHeader("X-Content-Type-Options: nosniff")) << stream.head;
}

TEST(HttpAuthority, ParsesExactlyAndCanonicalises)
{
    EXPECT_EQ(vlm::parseHttpAuthority("LOCALHOST:8080")->host, "localhost");
    EXPECT_EQ(vlm::parseHttpAuthority("localhost:8080")->port, 8080);
    EXPECT_EQ(vlm::parseHttpAuthority("[0::1]")->host, "[::1]");
    EXPECT_EQ(vlm::parseHttpAuthority("[::1]:65535")->port, 65535);
    for (const std::string bad : {"", ":80", "a:65536", "a:99999", "a:+1", "a b", "[]", "[::1]:", "a@b", "[zz]", "[1.2.3.4]"})
        EXPECT_FALSE(vlm::parseHttpAuthority(bad)) << bad;
    EXPECT_EQ(vlm::canonicalHttpHost("FE80::1"), "[fe80::1]");
    EXPECT_EQ(vlm::canonicalHttpHost("[fe80::1]"), "[fe80::1]");
    EXPECT_EQ(vlm::canonicalHttpHost("x:1"), "");
    EXPECT_EQ(vlm::canonicalHttpOrigin("HTTP://Example:80"), "http://example");
    EXPECT_EQ(vlm::canonicalHttpOrigin("https://example:443"), "https://example");
    EXPECT_EQ(vlm::canonicalHttpOrigin("http://example:8080"), "http://example:8080");
    for (const std::string bad : {"null", "*", "example", "ftp://example", "http://", "http://a/b", "http://a:b"})
        EXPECT_EQ(vlm::canonicalHttpOrigin(bad), "") << bad;
}

} // namespace
