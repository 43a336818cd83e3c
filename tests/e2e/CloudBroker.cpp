#include "e2e/CloudBroker.h"

#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

namespace vlm::e2e {
namespace {

int freePort()
{
    Poco::Net::ServerSocket probe(Poco::Net::SocketAddress("127.0.0.1", 0));
    return probe.address().port();
}

bool accepts(int port)
{
    try {
        Poco::Net::StreamSocket socket;
        socket.connect(Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(port)), Poco::Timespan(0, 200000));
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

} // namespace

CloudBroker::CloudBroker(const std::string& stationHostPort) : CloudBroker(std::vector<Bridge>{{stationHostPort}}) {}

CloudBroker::CloudBroker(const std::vector<Bridge>& bridges) : port(freePort())
{
    std::string config = "listener " + std::to_string(port) + " 127.0.0.1\n"
                         "allow_anonymous true\npersistence false\nlog_dest stderr\n";
    if (::geteuid() == 0)
        config += "user root\n";
    for (std::size_t i = 0; i < bridges.size(); ++i) {
        config += "connection station" + (i == 0 ? std::string() : "-" + std::to_string(i)) + "\n"
                  "address " + bridges[i].stationHostPort + "\n"
                  "topic " + bridges[i].topics + " both 0\n"
                  "cleansession true\n"
                  "restart_timeout 1\n";
    }
    broker = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/sbin/mosquitto", "-c", dir.write("cloud.conf", config)}, dir.file("cloud.log"));
    for (int attempt = 0; attempt < 100 && broker->running(); ++attempt) {
        if (accepts(port))
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    throw std::runtime_error("cloud broker did not start:\n" + broker->output());
}

std::string CloudBroker::uri() const
{
    return "tcp://127.0.0.1:" + std::to_string(port);
}

std::string CloudBroker::output() const
{
    return broker->output();
}

} // namespace vlm::e2e
