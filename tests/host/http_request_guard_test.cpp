// The HTTP server's refusals, one table: which Host and Origin it serves, CORS
// preflights, the bearer token, the methods each route takes, the body limits
// and a failing handler. Raw requests over loopback, so the test controls every byte of the
// head; each row checks the status, the refusal text, the counters and the
// log line it leaves.

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketStream.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/StreamCopier.h>
#include <Poco/String.h>

#include "host/HttpTestClient.h"
#include "http/HttpApiServer.h"
#include "support/LogCapture.h"

namespace {

using vlm::HttpRouteClass;

struct RawAnswer {
    int status = 0;
    std::string head;
    std::string body;

    bool hasHeader(const std::string& line) const { return head.find("\r\n" + line + "\r\n") != std::string::npos; }
};

/// Writes `text` on a fresh connection and reads until the server closes it
/// (or the bounded wait runs out).
RawAnswer exchange(std::uint16_t port, const std::string& text)
{
    Poco::Net::StreamSocket socket;
    socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(5, 0));
    socket.setReceiveTimeout(Poco::Timespan(5, 0));
    socket.sendBytes(text.data(), static_cast<int>(text.size()));
    Poco::Net::SocketStream in(socket);
    std::string received;
    Poco::StreamCopier::copyToString(in, received);
    RawAnswer answer;
    const auto end = received.find("\r\n\r\n");
    answer.head = received.substr(0, end == std::string::npos ? received.size() : end + 2);
    answer.body = end == std::string::npos ? "" : received.substr(end + 4);
    if (received.compare(0, 5, "HTTP/") == 0 && received.size() > 12)
        answer.status = std::atoi(received.substr(9, 3).c_str());
    return answer;
}

std::uint64_t countOf(const vlm::HttpApiServer& server, HttpRouteClass routeClass, int status)
{
    for (const auto& c : server.requestCounts())
        if (c.routeClass == routeClass && c.status == status)
            return c.count;
    return 0;
}

/// One request and what it must leave. In `head`, {self} is 127.0.0.1:<port>,
/// {port} the port, {other} another port and {auth} the token's header line.
struct Row {
    std::string head;
    std::string body;
    int status;
    std::string msg;     // the refusal's "msg" (its start, for parser texts)
    std::string header;  // one header line the answer carries
    HttpRouteClass routeClass;
    std::string log;     // the one log line the request leaves; "" for none
};

TEST(HttpRequestRefusals, EachRequestGetsItsStatusCounterAndLogLine)
{
    vlm::test::LogCapture log;
    vlm::HttpApiServerOptions options;
    options.bearerToken = "s3cret";
    options.maxBodyBytes = 64;
    options.allowedOrigins = {"http://127.0.0.1:5173"};
    options.allowedHosts = {"Station.Local"};
    vlm::HttpApiServer server(options);
    server.start();
    std::atomic<int> commands{0};
    server.apiRegist("/cmd", vlm::RequestApiHandler([&](auto&, auto&, const auto&, auto&, const auto&) {
                         ++commands;
                     }));
    server.apiRegist("/throws", vlm::RequestApiHandler([](auto&, auto&, const auto&, auto&, const auto&) {
                         throw std::runtime_error("rpc client is null");
                     }));
    const auto plugin = HttpRouteClass::pluginRequest;
    const auto refused = HttpRouteClass::refused;
    const std::string post = "POST /cmd HTTP/1.1\n";
    const std::string ok = R"({"type":"request"})";
    const std::string cross = "cross-origin request from a browser";
    const std::string otherServer = "Host header names another server";
    const std::vector<Row> rows = {
        {post + "Host: {self}\n{auth}", ok, 200, "", "", plugin, ""},
        {post + "Host: station.local:{port}\n{auth}", ok, 200, "", "", plugin, ""},
        {"POST /cmd HTTP/1.0\n{auth}", ok, 200, "", "", plugin, ""},  // an HTTP/1.0 tool is no browser
        // Only the first guard refusal of a burst is logged.
        {post + "{auth}", ok, 403, "missing Host header", "", refused,
         "refused: missing Host header (1 refused so far)"},
        {post + "Host: {self}\nHost: evil.example\n{auth}", ok, 403, "more than one Host header", "", refused, ""},
        {post + "Host: 127.0.0.1.evil.example:{port}\n{auth}", ok, 403, otherServer, "", refused, ""},
        {post + "Host: localhost:{other}\n{auth}", ok, 403, "Host header names another port", "", refused, ""},
        {post + "Host: user@localhost:{port}\n{auth}", ok, 403, "malformed Host header", "", refused, ""},
        {post + "Host: {self}\nOrigin: http://{self}\n{auth}", ok, 200, "", "", plugin, ""},
        {post + "Host: {self}\nOrigin: http://127.0.0.1:5173\n{auth}", ok, 200, "",
         "Access-Control-Allow-Origin: http://127.0.0.1:5173", plugin, ""},
        {post + "Host: {self}\nOrigin: http://evil.example\n{auth}", ok, 403, cross, "", refused, ""},
        {post + "Host: {self}\nOrigin: http://{self}\nOrigin: http://evil.example\n{auth}", ok, 403,
         "more than one Origin header", "", refused, ""},
        {post + "Host: {self}\nSec-Fetch-Site: cross-site\n{auth}", ok, 403, "cross-site request from a browser", "",
         refused, ""},
        // The guard answers before the token is asked for, and the token
        // before anything about the path is told.
        {post + "Host: evil.example\n", ok, 403, otherServer, "", refused, ""},
        {post + "Host: {self}\n", ok, 401, "missing or wrong bearer token", "WWW-Authenticate: Bearer", refused, ""},
        {post + "Host: {self}\nAuthorization: Bearer s3cre\n", ok, 401, "missing or wrong bearer token", "", refused,
         ""},
        {"POST /nowhere HTTP/1.1\nHost: {self}\n", ok, 401, "missing or wrong bearer token", "", refused, ""},
        {"GET /cmd HTTP/1.1\nHost: {self}\n{auth}", "", 405, "method not allowed; allowed: POST", "Allow: POST",
         refused, ""},
        {post + "Host: {self}\n{auth}", "{\"k\":\"" + std::string(57, 'x') + "\"}", 413,
         "request body of 65 bytes exceeds 64", "", plugin, "http /cmd refused: request body of 65 bytes exceeds 64"},
        {post + "Host: {self}\n{auth}Transfer-Encoding: chunked\n", "50\r\n" + std::string(80, ' ') + "\r\n0\r\n\r\n",
         413, "request body exceeds 64 bytes", "", plugin, "http /cmd refused: request body exceeds 64 bytes"},
        {post + "Host: {self}\n{auth}", "[1,2]", 400, "request body is not a JSON object", "", plugin,
         "http /cmd refused: request body is not a JSON object"},
        // A handler's exception is answered and logged; the server goes on.
        {"POST /throws HTTP/1.1\nHost: {self}\n{auth}", ok, 500, "handler failed: rpc client is null", "", plugin,
         "http handler for /throws failed: rpc client is null"},
        // A preflight from an allowed origin is answered without the token.
        {"OPTIONS /cmd HTTP/1.1\nHost: {self}\nOrigin: http://127.0.0.1:5173\nAccess-Control-Request-Method: POST\n",
         "", 204, "", "Access-Control-Allow-Headers: Content-Type, Authorization", HttpRouteClass::preflight, ""},
        {"OPTIONS /cmd HTTP/1.1\nHost: {self}\nOrigin: http://evil.example\nAccess-Control-Request-Method: POST\n",
         "", 403, cross, "", refused, ""},
    };
    const std::string port = std::to_string(server.port());
    const std::string other = std::to_string(server.port() == 65535 ? 1 : server.port() + 1);
    auto expand = [&](std::string text) {
        Poco::replaceInPlace(text, std::string("{self}"), "127.0.0.1:" + port);
        Poco::replaceInPlace(text, std::string("{port}"), port);
        Poco::replaceInPlace(text, std::string("{other}"), other);
        Poco::replaceInPlace(text, std::string("{auth}"), std::string("Authorization: Bearer s3cret\n"));
        return text;
    };
    for (const auto& row : rows) {
        std::string head = expand(row.head);
        SCOPED_TRACE(head + row.body.substr(0, 20));
        if (head.find("Transfer-Encoding") == std::string::npos)
            head += "Content-Length: " + std::to_string(row.body.size()) + "\n";
        head += "Connection: close\n\n";
        Poco::replaceInPlace(head, std::string("\n"), std::string("\r\n"));
        const auto counted = countOf(server, row.routeClass, row.status);
        const auto guarded = server.guardRefusals();
        const int done = commands.load();
        const auto logged = log.lines().size();

        // Reading to the end of the connection: the request was counted.
        const RawAnswer answer = exchange(server.port(), head + row.body);
        EXPECT_EQ(answer.status, row.status) << answer.head;
        const std::string refusal = R"({"code":)" + std::to_string(row.status) + R"(,"msg":")" + row.msg;
        EXPECT_TRUE(row.msg.empty() || answer.body.find(refusal) != std::string::npos) << answer.body;
        const std::string header = expand(row.header);
        EXPECT_TRUE(header.empty() || answer.hasHeader(header)) << header;
        EXPECT_TRUE(header.find("Access-Control") != std::string::npos ||
                    answer.head.find("Access-Control-Allow-Origin") == std::string::npos);
        EXPECT_TRUE(answer.hasHeader("X-Content-Type-Options: nosniff"));
        EXPECT_TRUE(answer.hasHeader("Cache-Control: no-store"));

        EXPECT_EQ(countOf(server, row.routeClass, row.status), counted + 1);
        EXPECT_EQ(server.guardRefusals(), guarded + (row.status == 403 ? 1 : 0));
        EXPECT_EQ(commands.load(), done + (row.routeClass == plugin && row.status == 200 ? 1 : 0));
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), logged + (row.log.empty() ? 0 : 1));
        EXPECT_TRUE(row.log.empty() || lines.back().text.find(row.log) != std::string::npos) << lines.back().text;
    }
}

} // namespace
