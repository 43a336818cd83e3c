#pragma once

// The floors the drivers print their figures beside, each the least the same
// trip costs with nothing of ours in the way: a POCO HTTP server that echoes,
// a socket that echoes RPC frames, an MQTT client that echoes through the
// broker. Every wait is bounded.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <mqtt/async_client.h>

namespace Poco::Net {
class HTTPServer;
}

namespace vlm::bench {

/// Round trips of one kind, in milliseconds, and how many did not succeed.
struct Trips {
    std::vector<double> ms;
    int failed = 0;
};

/// A POCO HTTP server on 127.0.0.1 (a port the kernel chose) that answers
/// every request with its body.
class HttpEchoServer {
public:
    HttpEchoServer();
    ~HttpEchoServer();
    HttpEchoServer(const HttpEchoServer&) = delete;
    HttpEchoServer& operator=(const HttpEchoServer&) = delete;
    std::uint16_t port() const { return listenPort; }

private:
    std::unique_ptr<Poco::Net::HTTPServer> server;
    std::uint16_t listenPort = 0;
};

/// `count` POSTs of `body` to `path` on 127.0.0.1:`port`, one keep-alive
/// session, one after another. A trip fails when the answer is not 200 or
/// does not contain `expect`.
Trips httpRoundTrips(std::uint16_t port, const std::string& path, const std::string& body, int count,
                     const std::string& expect = "");

/// A socket on 127.0.0.1 that sends every RPC frame it reads straight back:
/// the RPC link's transport with no service behind it. Serves one
/// connection at a time until destroyed.
class RpcEchoServer {
public:
    RpcEchoServer();
    ~RpcEchoServer();
    RpcEchoServer(const RpcEchoServer&) = delete;
    RpcEchoServer& operator=(const RpcEchoServer&) = delete;
    std::uint16_t port() const { return listenPort; }

private:
    void serve();

    int listener = -1;
    std::uint16_t listenPort = 0;
    std::atomic<bool> stopping{false};
    std::thread server;
};

/// `count` calls of `procedure`(`request`, `api`) as raw frames on one
/// blocking socket to 127.0.0.1:`port`, each waiting for the next frame back:
/// against RpcEchoServer the transport's ping-pong, against the simulator the
/// transport plus the simulator's own time.
Trips rawCallRoundTrips(std::uint16_t port, const std::string& procedure, const std::string& request,
                        const std::string& api, int count);

/// An MQTT client that republishes everything arriving on `from` on `to`
/// at `qos`, straight from the client library's callback.
class MqttEcho {
public:
    MqttEcho(const std::string& uri, const std::string& clientId, const std::string& from, std::string to,
             int qos = 0);
    ~MqttEcho();
    MqttEcho(const MqttEcho&) = delete;
    MqttEcho& operator=(const MqttEcho&) = delete;

private:
    const std::string to;
    const int qos;
    mqtt::async_client client;
};

} // namespace vlm::bench
