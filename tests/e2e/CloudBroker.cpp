#include "e2e/CloudBroker.h"

namespace vlm::e2e {
namespace {

std::string bridgeConfig(const std::vector<CloudBroker::Bridge>& bridges)
{
    std::string config;
    for (std::size_t i = 0; i < bridges.size(); ++i) {
        config += "connection station" + (i == 0 ? std::string() : "-" + std::to_string(i)) + "\n"
                  "address " + bridges[i].stationHostPort + "\n"
                  "topic " + bridges[i].topics + " both 0\n"
                  "cleansession true\n"
                  "restart_timeout 1\n";
    }
    return config;
}

} // namespace

CloudBroker::CloudBroker(const std::vector<Bridge>& bridges)
    : broker(test::MosquittoBroker::Options{"", "", "", "", bridgeConfig(bridges)})
{
    broker.start();
}

} // namespace vlm::e2e
