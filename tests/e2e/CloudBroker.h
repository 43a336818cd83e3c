#pragma once

#include <string>
#include <vector>

#include "support/MosquittoBroker.h"

namespace vlm::e2e {

/// A second mosquitto, standing for the cloud broker, with a bridge to the
/// station's broker for the station's topics in both directions, the way a
/// station and a cloud are joined. Listens on a loopback port of its own.
class CloudBroker {
public:
    /// One bridged station broker and the topic pattern carried both ways.
    struct Bridge {
        std::string stationHostPort;
        std::string topics = "/velmora/pilot/#";
    };

    /// Starts and returns once it accepts connections; throws std::runtime_error otherwise.
    explicit CloudBroker(const std::string& stationHostPort);
    /// The same with a bridge to each station, as a cloud serving a fleet.
    explicit CloudBroker(const std::vector<Bridge>& bridges);

    std::string uri() const { return broker.uri(); }
    std::string output() const { return broker.output(); }

private:
    test::MosquittoBroker broker;
};

} // namespace vlm::e2e
