#include "support/RestartablePort.h"

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <random>

#include <Poco/Exception.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>

namespace vlm::test {
namespace {

const char* const loopback = "127.0.0.1";

int ephemeralLowerBound()
{
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    int low = 0;
    if (range >> low && low > 1024)
        return low;
    return 32768;
}

// Binds `port` (0: the kernel's choice) and lets it go; the port, or 0 when taken.
int probe(int port)
{
    try {
        Poco::Net::ServerSocket socket;
        socket.bind(Poco::Net::SocketAddress(loopback, static_cast<Poco::UInt16>(port)), false);
        return socket.address().port();
    } catch (const Poco::Exception&) {
        return 0;
    }
}

} // namespace

int pickRestartablePort()
{
    const int top = ephemeralLowerBound() - 1;
    const int bottom = top > 11024 ? top - 10000 : 1025;
    std::mt19937 random(static_cast<unsigned>(::getpid()) ^
                        static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
    std::uniform_int_distribution<int> pick(bottom, top);
    for (int attempt = 0; attempt < 100; ++attempt)
        if (const int port = probe(pick(random)))
            return port;
    return probe(0);
}

} // namespace vlm::test
