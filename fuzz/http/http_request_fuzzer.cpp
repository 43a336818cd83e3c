// Writes arbitrary request heads and bodies to a real HttpApiServer on a
// loopback port, each on a fresh connection, and checks what must hold for
// any input: a request the Host/Origin guard has to refuse never reaches a
// route, a route is reached only by its method, every connection is answered
// or closed within a bound, and the server still answers afterwards.

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include <Poco/Logger.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/String.h>

#include "VelmoraCommon.h"
#include "http/HttpApiServer.h"

namespace {

using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;

std::mutex violationMutex;  // guards violation
std::string violation;      // the first broken invariant seen by a route

void fail(const std::string& what)
{
    std::lock_guard<std::mutex> lock(violationMutex);
    if (violation.empty())
        violation = what;
}

std::string firstViolation()
{
    std::lock_guard<std::mutex> lock(violationMutex);
    return violation;
}

// The guard's rules written independently of it, in their simplest form:
// a Host of a loopback name or address with no port or the server's.
bool loopbackHost(std::string host, std::uint16_t port)
{
    host = Poco::toLower(Poco::trim(host));
    const std::string suffix = ":" + std::to_string(port);
    if (host.size() > suffix.size() && host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0)
        host.erase(host.size() - suffix.size());
    if (host == "localhost" || host == "127.0.0.1")
        return true;
    if (host.size() < 3 || host.front() != '[' || host.back() != ']')
        return false;
    in6_addr address{};
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &address) == 1 &&
           IN6_IS_ADDR_LOOPBACK(&address);
}

std::size_t fieldCount(const HTTPServerRequest& request, const std::string& name)
{
    std::size_t n = 0;
    for (const auto& field : request)
        n += Poco::icompare(field.first, name) == 0 ? 1 : 0;
    return n;
}

void checkAdmitted(const HTTPServerRequest& request, std::uint16_t port, const std::string& method)
{
    if (request.getMethod() != method)
        fail("route for " + method + " reached by " + request.getMethod());
    const std::size_t hosts = fieldCount(request, "Host");
    if (hosts > 1 || (hosts == 1 && !loopbackHost(request.get("Host"), port)) ||
        (hosts == 0 && request.getVersion() != Poco::Net::HTTPMessage::HTTP_1_0))
        fail("route reached with Host \"" + request.get("Host", "<none>") + "\"");
    const std::size_t origins = fieldCount(request, "Origin");
    if (origins > 1)
        fail("route reached with two Origin fields");
    if (origins == 1) {
        std::string origin = Poco::toLower(Poco::trim(request.get("Origin")));
        const std::string scheme = "http://";
        const bool own = origin.compare(0, scheme.size(), scheme) == 0 &&
                         origin.find(':', scheme.size()) != std::string::npos &&
                         loopbackHost(origin.substr(scheme.size()), port) &&
                         origin.substr(origin.rfind(':')) == ":" + std::to_string(port);
        if (!own)
            fail("route reached with Origin \"" + origin + "\"");
        return;
    }
    const std::string site = Poco::toLower(Poco::trim(request.get("Sec-Fetch-Site", "")));
    if (site == "cross-site" || site == "same-site")
        fail("route reached with Sec-Fetch-Site " + site);
}

struct Server {
    Server()
    {
        Poco::Logger::get(vlm::logName()).setLevel(Poco::Message::PRIO_FATAL);
        vlm::HttpApiServerOptions options;
        options.workerThreads = 4;
        options.keepAlive = false;
        options.socketTimeout = std::chrono::seconds(1);
        options.maxBodyBytes = 4096;
        server = std::make_unique<vlm::HttpApiServer>(options);
        server->start();
        port = server->port();
        const std::uint16_t p = port;
        server->apiRegist("/cmd", vlm::RequestApiHandler([p](HTTPServerRequest& request, HTTPServerResponse&,
                                                             const vlm::ApiParams&, Poco::JSON::Object& reply,
                                                             const Poco::JSON::Object&) {
                              checkAdmitted(request, p, "POST");
                              reply.set("ok", true);
                          }));
        server->apiRegist("/stream", vlm::StreamApiHandler([p](HTTPServerRequest& request,
                                                               HTTPServerResponse& response, const vlm::ApiParams&,
                                                               Poco::JSON::Object&) {
                              checkAdmitted(request, p, "GET");
                              response.setContentType("text/event-stream");
                              response.send() << "data: one\n\n";
                          }));
        server->hostRouteRegist("/health", {"GET"},
                                vlm::StreamApiHandler([](HTTPServerRequest&, HTTPServerResponse&,
                                                         const vlm::ApiParams&, Poco::JSON::Object& reply) {
                                    reply.set("status", "ok");
                                }));
    }

    std::unique_ptr<vlm::HttpApiServer> server;
    std::uint16_t port = 0;
};

Server& server()
{
    static Server instance;
    return instance;
}

/// Writes `bytes`, closes the sending side and reads until the server
/// closes. False when the server neither answered nor closed in time.
bool exchange(std::uint16_t port, const std::string& bytes, std::string& answer)
{
    Poco::Net::StreamSocket socket;
    socket.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(2, 0));
    socket.setReceiveTimeout(Poco::Timespan(3, 0));
    socket.setSendTimeout(Poco::Timespan(2, 0));
    try {
        if (!bytes.empty())
            socket.sendBytes(bytes.data(), static_cast<int>(bytes.size()));
        socket.shutdownSend();
    } catch (const Poco::Exception&) {
        // The server may close on a head it refuses before all is written.
    }
    char buffer[4096];
    for (int reads = 0; reads < 256; ++reads) {
        try {
            const int n = socket.receiveBytes(buffer, sizeof buffer);
            if (n <= 0)
                return true;
            answer.append(buffer, static_cast<std::size_t>(n));
        } catch (const Poco::TimeoutException&) {
            return false;
        } catch (const Poco::Exception&) {
            return true;  // reset by the server: closed
        }
    }
    return true;
}

// "<version> <3 digits> ": POCO answers with the version token the request
// gave, whatever it was, so only the shape is checked.
bool statusLine(const std::string& answer)
{
    const auto space = answer.find(' ');
    if (space == std::string::npos || space == 0 || answer.size() < space + 5)
        return false;
    for (std::size_t i = space + 1; i < space + 4; ++i)
        if (answer[i] < '0' || answer[i] > '9')
            return false;
    return answer[space + 4] == ' ';
}

[[noreturn]] void abortWith(const std::string& what, const std::string& input)
{
    std::fprintf(stderr, "http_request_fuzzer: %s\ninput: %s\n", what.c_str(), input.c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Server& s = server();
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::string answer;
    if (!exchange(s.port, input, answer))
        abortWith("connection neither answered nor closed", input);
    if (!answer.empty() && !statusLine(answer))
        abortWith("answer is not HTTP: " + answer.substr(0, 64), input);
    const std::string broken = firstViolation();
    if (!broken.empty())
        abortWith(broken, input);

    std::string health;
    const std::string probe = "GET /health HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(s.port) +
                              "\r\nConnection: close\r\n\r\n";
    if (!exchange(s.port, probe, health) || health.compare(0, 12, "HTTP/1.1 200") != 0)
        abortWith("server stopped answering: " + health.substr(0, 64), input);
    return 0;
}
