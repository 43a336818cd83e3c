#include "support/RestartablePort.h"

#include <fstream>
#include <random>

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>

namespace vlm::test {
namespace {

// Binds `port` (0: the kernel's choice) and lets it go; the port, or 0 when taken.
int probe(int port)
{
    try {
        Poco::Net::ServerSocket socket;
        socket.bind(Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(port)), false);
        return socket.address().port();
    } catch (const Poco::Exception&) {
        return 0;
    }
}

} // namespace

int pickRestartablePort()
{
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    int low = 0;
    const int top = (range >> low && low > 1024 ? low : 32768) - 1;
    std::uniform_int_distribution<int> pick(top > 11024 ? top - 10000 : 1025, top);
    std::mt19937 random(std::random_device{}());
    for (int attempt = 0; attempt < 100; ++attempt)
        if (const int port = probe(pick(random)))
            return port;
    return probe(0);
}

} // namespace vlm::test
