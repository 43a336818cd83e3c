// What the host sees of a plug-in's service link: the kernel's socket table
// lines, parsed, and this process's own connections counted.

#include <gtest/gtest.h>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

#include "app/ServiceLink.h"

namespace {

using vlm::host::ServiceLinkState;
using vlm::host::TcpTableEntry;

const char* const header =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode";
// 127.0.0.1:42300 -> 127.0.0.1:7700, established, inode 1234.
const char* const v4Line =
    "   3: 0100007F:A53C 0100007F:1E14 01 00000000:00000000 00:00000000 00000000     0        0 1234 1 "
    "0000000000000000 20 4 30 10 -1";
// [::1]:50000 -> [::1]:7700, SYN sent, inode 99.
const char* const v6Line =
    "   0: 00000000000000000000000001000000:C350 00000000000000000000000001000000:1E14 02 00000000:00000000 "
    "00:00000000 00000000     0        0 99 1 0000000000000000 20 4 0 10 -1";
// [::ffff:127.0.0.1]:50001 -> [::ffff:127.0.0.1]:7700, established, inode 77.
const char* const mappedLine =
    "   1: 0000000000000000FFFF00000100007F:C351 0000000000000000FFFF00000100007F:1E14 01 00000000:00000000 "
    "00:00000000 00000000     0        0 77 1 0000000000000000 20 4 0 10 -1";

Poco::Net::IPAddress ip(const char* text)
{
    return Poco::Net::IPAddress(text);
}

TEST(TcpTable, RefusesTheHeaderAndMalformedLines)
{
    TcpTableEntry entry;
    for (const char* line : {header, "", "   3: 0100007F:A53C", "   3: 0100007F:A53C 0100007F 01 0 0 0 0 0 1 1",
                             "   3: 0100007F:A53C 01007F:1E14 01 0:0 0:0 0 0 0 1 1",
                             "   3: 0100007F:A53C 0100007F:XYZW 01 0:0 0:0 0 0 0 1 1",
                             "   3: 0100007F:A53C 0100007F:1E14 01 0:0 0:0 0 0 0 12ab 1"})
        EXPECT_FALSE(vlm::host::parseTcpTableLine(line, entry)) << line;
}

TEST(TcpTable, CountsOnlyOwnSocketsToTheServiceEndpoint)
{
    const std::string table = std::string(header) + "\n" + v4Line + "\n" + mappedLine + "\n";
    ServiceLinkState state;
    vlm::host::countServiceConnections(table, {1234, 77}, ip("127.0.0.1"), 7700, state);
    EXPECT_EQ(state.established, 2);

    ServiceLinkState notOurs;
    vlm::host::countServiceConnections(table, {5}, ip("127.0.0.1"), 7700, notOurs);
    EXPECT_EQ(notOurs.established, 0);

    ServiceLinkState otherPort;
    vlm::host::countServiceConnections(table, {1234, 77}, ip("127.0.0.1"), 7701, otherPort);
    EXPECT_EQ(otherPort.established, 0);

    ServiceLinkState connecting;
    vlm::host::countServiceConnections(std::string(v6Line) + "\n", {99}, ip("::1"), 7700, connecting);
    EXPECT_EQ(connecting.established, 0);
    EXPECT_EQ(connecting.connecting, 1);
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
