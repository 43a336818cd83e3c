#pragma once

// The HTTP side of the chaos run: ground apps posting requests as curl or an
// app would (POST, JSON body, no Origin header), and floods of bus messages
// posted to the host's bus intake. Every request lands in a tally.

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "HttpTally.h"

namespace vlm::chaos {

/// `clients` threads, each posting requests one after the other on a
/// keep-alive connection until stopped. Stops (and joins) on destruction.
class GroundApps {
public:
    GroundApps(std::uint16_t port, int clients, HttpTally& tally);
    ~GroundApps();
    GroundApps(const GroundApps&) = delete;
    GroundApps& operator=(const GroundApps&) = delete;

    void stop();

private:
    void run(int client);

    const std::uint16_t port;
    HttpTally& tally;
    std::atomic<bool> stopping{false};
    std::vector<std::thread> threads;
};

/// Posts `count` bus messages of about `bytes` bytes each to POST /host/bus
/// from one connection; every tenth one addresses the plug-in with a
/// request, the rest a GUID nobody has. Bounded by count and by the
/// connection's time-outs; returns when done or when `stop` is set.
void floodBus(std::uint16_t port, int count, std::size_t bytes, HttpTally& tally, const std::atomic<bool>& stop);

} // namespace vlm::chaos
