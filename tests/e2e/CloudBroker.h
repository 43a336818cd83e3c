#pragma once

#include <memory>
#include <string>

#include "e2e/ChildProcess.h"
#include "support/TempDir.h"

namespace vlm::e2e {

/// A second mosquitto, standing for the cloud broker, with a bridge to the
/// station's broker for the station's topics in both directions, the way a
/// station and a cloud are joined. Listens on a loopback port of its own.
class CloudBroker {
public:
    /// Starts and returns once it accepts connections; throws std::runtime_error otherwise.
    explicit CloudBroker(const std::string& stationHostPort);

    std::string uri() const;
    std::string output() const;

private:
    test::TempDir dir;
    int port = 0;
    std::unique_ptr<ChildProcess> broker;
};

} // namespace vlm::e2e
