#pragma once

#include <string>
#include <vector>

#include "support/MosquittoBroker.h"

namespace vlm::e2e {

/// A second mosquitto standing for the cloud, bridged both ways to station
/// brokers as a cloud serving a fleet is. Listens on a loopback port of its own.
class CloudBroker {
public:
    /// One bridged station broker and the topic pattern carried both ways.
    struct Bridge {
        std::string stationHostPort;
        std::string topics = "/velmora/pilot/#";
    };

    /// Starts and returns once it accepts connections; throws std::runtime_error otherwise.
    explicit CloudBroker(const std::vector<Bridge>& bridges);

    std::string uri() const { return broker.uri(); }
    std::string output() const { return broker.output(); }

private:
    test::MosquittoBroker broker;
};

} // namespace vlm::e2e
