#pragma once

// What the host can see of a plug-in's link to its micro service without
// touching the service: the TCP connections this very process holds to the
// service's address and port. The plug-in's RPC clients live in the host
// process, so their sockets are the host's own; reading the kernel's socket
// table (Linux /proc) costs the service nothing, unlike a probe connection.

#include <cstdint>
#include <set>
#include <string>

#include <Poco/Net/IPAddress.h>

namespace vlm::host {

struct ServiceLinkState {
    enum class Link {
        up,          ///< at least one connection is established
        connecting,  ///< none established, at least one being opened
        down,        ///< no connection at all
        unknown,     ///< the socket table could not be read
    };
    Link link = Link::unknown;
    int established = 0;
    int connecting = 0;
};

/// "up", "connecting", "down" or "unknown".
const char* linkName(ServiceLinkState::Link link);

/// The state of this process's TCP connections to `address`:`port`
/// (IPv4 addresses also match their IPv4-mapped IPv6 form). Any thread.
ServiceLinkState observeServiceLink(const Poco::Net::IPAddress& address, std::uint16_t port);

/// One line of a kernel TCP socket table, as far as the observer needs it.
struct TcpTableEntry {
    Poco::Net::IPAddress remoteAddress;
    std::uint16_t remotePort = 0;
    int state = 0;  ///< kernel TCP state: 1 established, 2 SYN sent, ...
    std::uint64_t inode = 0;
};

/// Parses one data line of /proc/net/tcp or /proc/net/tcp6; false for the
/// header line or anything malformed. Pure.
bool parseTcpTableLine(const std::string& line, TcpTableEntry& entry);

/// Counts the entries of a whole table text that belong to `inodes` and go to
/// the address and port. Pure.
void countServiceConnections(const std::string& table, const std::set<std::uint64_t>& inodes,
                             const Poco::Net::IPAddress& address, std::uint16_t port, ServiceLinkState& state);

} // namespace vlm::host
