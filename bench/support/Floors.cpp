#include "Floors.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <stdexcept>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/StreamCopier.h>

#include "raw_link.h"
#include "rpc/codec.h"
#include "rpc/frame.h"
#include "rpc/function_id.h"

namespace vlm::bench {
namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class EchoHandler : public Poco::Net::HTTPRequestHandler {
public:
    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override
    {
        std::string body;
        Poco::StreamCopier::copyToString(request.stream(), body);
        response.setContentType("application/json");
        response.setContentLength(static_cast<std::streamsize>(body.size()));
        response.send() << body;
    }
};

class EchoFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
    {
        return new EchoHandler;
    }
};

// Reads exactly `count` bytes; false when the peer closed or an error came.
bool readExact(int fd, char* out, std::size_t count)
{
    std::size_t got = 0;
    while (got < count) {
        const ssize_t n = ::recv(fd, out + got, count - got, 0);
        if (n <= 0)
            return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

bool writeAll(int fd, const char* data, std::size_t count)
{
    std::size_t sent = 0;
    while (sent < count) {
        const ssize_t n = ::send(fd, data + sent, count - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

HttpEchoServer::HttpEchoServer()
{
    Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    listenPort = socket.address().port();
    auto params = new Poco::Net::HTTPServerParams;
    params->setKeepAlive(true);
    server = std::make_unique<Poco::Net::HTTPServer>(new EchoFactory, socket, params);
    server->start();
}

HttpEchoServer::~HttpEchoServer()
{
    server->stopAll(true);
}

Trips httpRoundTrips(std::uint16_t port, const std::string& path, const std::string& body, int count,
                     const std::string& expect)
{
    Trips trips;
    Poco::Net::HTTPClientSession session("127.0.0.1", port);
    session.setTimeout(Poco::Timespan(15, 0));
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        try {
            Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, path, Poco::Net::HTTPMessage::HTTP_1_1);
            request.setContentLength(static_cast<std::streamsize>(body.size()));
            request.setContentType("application/json");
            session.sendRequest(request) << body;
            Poco::Net::HTTPResponse response;
            std::string answer;
            Poco::StreamCopier::copyToString(session.receiveResponse(response), answer);
            if (response.getStatus() != 200 || answer.find(expect) == std::string::npos) {
                ++trips.failed;
                continue;
            }
            trips.ms.push_back(msSince(start));
        } catch (const std::exception&) {
            ++trips.failed;
            session.reset();
        }
    }
    return trips;
}

RpcEchoServer::RpcEchoServer()
{
    listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener, 4) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (listener >= 0)
            ::close(listener);
        throw std::runtime_error("RPC echo: cannot listen on 127.0.0.1");
    }
    listenPort = ntohs(address.sin_port);
    server = std::thread([this] { serve(); });
}

RpcEchoServer::~RpcEchoServer()
{
    stopping = true;
    server.join();
    ::close(listener);
}

void RpcEchoServer::serve()
{
    // Every wait is a poll of at most 100 ms, so that the destructor's flag is seen.
    while (!stopping) {
        pollfd waiting{listener, POLLIN, 0};
        if (::poll(&waiting, 1, 100) <= 0)
            continue;
        const int fd = ::accept(listener, nullptr, nullptr);
        if (fd < 0)
            continue;
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        std::string frame;
        while (!stopping) {
            pollfd readable{fd, POLLIN, 0};
            if (::poll(&readable, 1, 100) <= 0)
                continue;
            frame.resize(pilot_rpc::header_size);
            if (!readExact(fd, frame.data(), pilot_rpc::header_size))
                break;
            const auto header = pilot_rpc::decode_header(reinterpret_cast<const std::uint8_t*>(frame.data()));
            frame.resize(pilot_rpc::header_size + header.body_len);
            if (!readExact(fd, frame.data() + pilot_rpc::header_size, header.body_len) ||
                !writeAll(fd, frame.data(), frame.size()))
                break;
        }
        ::close(fd);
    }
}

Trips rawCallRoundTrips(std::uint16_t port, const std::string& procedure, const std::string& request,
                        const std::string& api, int count)
{
    Trips trips;
    pilot_rpc::bench::raw_link link(port);
    const std::uint32_t function = pilot_rpc::function_id(procedure);
    const auto packed = pilot_rpc::pack_args(request, api);
    const std::string body(packed.data(), packed.size());
    for (int i = 0; i < count; ++i) {
        const std::string frame =
            pilot_rpc::bench::frame_bytes(pilot_rpc::call_frame, static_cast<std::uint64_t>(i + 1), function, body);
        const auto start = Clock::now();
        try {
            link.send_all(frame);
            std::uint64_t answered = 0;
            link.read_frame(answered);
            trips.ms.push_back(msSince(start));
        } catch (const std::exception&) {
            ++trips.failed;
            break;  // the link is gone; the rest would fail the same way
        }
    }
    return trips;
}

MqttEcho::MqttEcho(const std::string& uri, const std::string& clientId, const std::string& from, std::string target,
                   int echoQos)
    : to(std::move(target)), qos(echoQos), client(uri, clientId)
{
    client.set_message_callback([this](mqtt::const_message_ptr message) {
        std::string payload = message->to_string();
        const auto type = payload.find("\"type\":\"request\"");
        if (type != std::string::npos)
            payload.replace(type, 16, "\"type\":\"response\"");
        try {
            client.publish(to, payload.data(), payload.size(), qos, false);
        } catch (const std::exception&) {
            // A lost echo shows as a missing round trip.
        }
    });
    const auto bound = std::chrono::seconds(5);
    if (!client.connect(mqtt::connect_options_builder().clean_session(true).connect_timeout(bound).finalize())
             ->wait_for(bound + std::chrono::seconds(1)) ||
        !client.subscribe(from, 0)->wait_for(bound))
        throw std::runtime_error("MQTT echo cannot connect or subscribe at " + uri);
}

MqttEcho::~MqttEcho()
{
    try {
        client.disconnect()->wait_for(std::chrono::seconds(5));
    } catch (const std::exception&) {
        // The broker may be gone already.
    }
}

} // namespace vlm::bench
