// What the host sees of a plug-in's service link: this process's own
// connections to the service, counted from the kernel's socket table.

#include <gtest/gtest.h>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "app/ServiceLink.h"

namespace {

using vlm::host::ServiceLinkState;

// [::1]:50000 -> [::1]:7700, SYN sent, inode 99.
const char* const v6Line =
    "   0: 00000000000000000000000001000000:C350 00000000000000000000000001000000:1E14 02 00000000:00000000 "
    "00:00000000 00000000     0        0 99 1 0000000000000000 20 4 0 10 -1";

Poco::Net::IPAddress ip(const char* text)
{
    return Poco::Net::IPAddress(text);
}

TEST(TcpTable, CountsOnlyOwnSocketsToTheServiceEndpointByState)
{
    const std::string table = std::string("  sl  local_address rem_address   st\n") + v6Line + "\n";
    ServiceLinkState connecting;
    vlm::host::countServiceConnections(table, {99}, ip("::1"), 7700, connecting);
    EXPECT_EQ(connecting.connecting, 1);
    EXPECT_EQ(connecting.established, 0);
    ServiceLinkState notOurs;
    vlm::host::countServiceConnections(table, {5}, ip("::1"), 7700, notOurs);
    ServiceLinkState otherPort;
    vlm::host::countServiceConnections(table, {99}, ip("::1"), 7701, otherPort);
    EXPECT_EQ(notOurs.connecting + otherPort.connecting, 0);
}

TEST(ServiceLink, FollowsThisProcesssRealConnection)
{
    Poco::Net::ServerSocket listener(Poco::Net::SocketAddress("127.0.0.1", 0));
    const auto port = listener.address().port();
    const auto address = ip("127.0.0.1");
    EXPECT_EQ(vlm::host::observeServiceLink(address, port).link, ServiceLinkState::Link::down);

    Poco::Net::StreamSocket client;
    client.connect(Poco::Net::SocketAddress("127.0.0.1", port), Poco::Timespan(5, 0));
    Poco::Net::StreamSocket accepted = listener.acceptConnection();
    const ServiceLinkState up = vlm::host::observeServiceLink(address, port);
    EXPECT_EQ(up.link, ServiceLinkState::Link::up);
    EXPECT_EQ(up.established, 1);  // the accepted side goes to the client's port, not the service's

    client.close();
    EXPECT_EQ(vlm::host::observeServiceLink(address, port).link, ServiceLinkState::Link::down);
}

} // namespace
